# An HTTPS server on 127.0.0.1 that misbehaves in one way, for the transport
# tests. Arguments: MODE PORT CERTIFICATE KEY CONTENT_FILE. Every POST is
# answered with what the server saw of it as JSON.
import hashlib
import http.server
import json
import socket
import socketserver
import ssl
import sys
import time

mode, port, certificate, key, content = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4], sys.argv[5]
data = open(content, 'rb').read()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = 'HTTP/1.1'

    def log_message(self, *arguments):
        pass

    def reply(self, status, fields, body=b''):
        self.send_response(status)
        for name, value in fields:
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    def do_POST(self):
        body = self.rfile.read(int(self.headers['Content-Length']))
        seen = {name: self.headers.get(name) for name in ('Content-Type', 'Authorization', 'Expect', 'User-Agent')}
        seen['sha256'] = hashlib.sha256(body).hexdigest()
        text = json.dumps(seen, sort_keys=True).encode()
        self.reply(201, [('Content-Length', str(len(text)))], text)

    def do_GET(self):
        start = int(self.headers.get('Range', 'bytes=0-')[6:].split('-')[0])
        rest, whole = data[start:], len(data)
        # A correct answer to the range asked for, which some modes then break.
        status, fields = 200, [('Content-Length', str(len(rest)))]
        if start:
            status = 206
            fields.append(('Content-Range', 'bytes %d-%d/%d' % (start, whole - 1, whole)))
        if mode == 'full':
            self.reply(200, [('Content-Length', str(whole))], data)
        elif mode == 'cut':
            self.reply(status, fields, rest[:len(rest) // 2])
            self.request.shutdown(socket.SHUT_RDWR)  # no TLS close_notify: an abrupt end
        elif mode == 'stall':
            self.reply(status, fields, rest[:1])
            time.sleep(3600)
        elif mode == 'endless':
            self.reply(200, [('Connection', 'close')])
            while True:
                self.wfile.write(data)


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True


context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(certificate, key)
server = Server(('127.0.0.1', port), Handler)
server.socket = context.wrap_socket(server.socket, server_side=True)
server.serve_forever()
