#include "tests/support/https_server.hpp"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace zorvi::testing {
namespace fs = std::filesystem;
namespace {

void stop(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGKILL);
  wait_status(pid);
}

// Starts `argv` with its output in `log`, and returns once a TLS handshake
// with the server on `port` succeeds under `ca` (with no `ca`, once a plain
// HTTP request is answered).
pid_t start(const std::vector<std::string>& argv, const fs::path& log, int port, const fs::path& ca) {
  const std::string peer = "127.0.0.1:" + std::to_string(port);
  const std::vector<std::string> probe =
      ca.empty()
          ? std::vector<std::string>{"curl", "-s", "-o", "/dev/null", "http://" + peer + "/"}
          : std::vector<std::string>{
                "openssl", "s_client", "-connect", peer, "-CAfile", ca.string(), "-verify_return_error", "-brief"};
  const pid_t pid = spawn(argv, "", log, log);
  for (int attempt = 0; pid > 0 && attempt < 400; ++attempt) {
    if (wait_status(pid, false) >= 0) throw std::runtime_error(argv[0] + " ended: " + read_text(log));
    if (run_command(probe).status == 0) return pid;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  stop(pid);
  throw std::runtime_error(argv[0] + " never accepted a connection: " + read_text(log));
}

// nginx in the foreground, all its paths relative to its prefix, the server's folder.
constexpr const char* nginx_config = R"(daemon off; master_process off; user root; worker_processes 1;
pid nginx.pid; error_log error.log; events { worker_connections 64; }
http { access_log off; default_type application/octet-stream; client_body_temp_path temp; proxy_temp_path temp;
  fastcgi_temp_path temp; uwsgi_temp_path temp; scgi_temp_path temp;
)";

pid_t start_nginx(const TempDir& dir, const fs::path& root, int port, const std::string& listen_options,
                  const std::string& server_config, const fs::path& ca) {
  const std::string server = "  server { listen 127.0.0.1:" + std::to_string(port) + listen_options + "; root " +
                             root.string() + ";\n    " + server_config + "\n  }\n}\n";
  write_text(dir / "nginx.conf", nginx_config + server);
  return start({"/usr/sbin/nginx", "-p", dir.path().string() + "/", "-c", "nginx.conf", "-e", "error.log"},
               dir / "nginx.out", port, ca);
}

}  // namespace

TestCertificates::TestCertificates(const fs::path& directory)
    : ca(directory / "ca.pem"), certificate(directory / "server.pem"), key(directory / "server.key") {
  const CommandResult made =
      run_command({"sh", "-c", R"(cd "$1" && ec="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2" &&
openssl req -x509 $ec -keyout ca.key -out ca.pem -subj "/CN=Zorvi Test CA" &&
openssl req -x509 $ec -CA ca.pem -CAkey ca.key -keyout server.key -out server.pem -subj /CN=127.0.0.1 \
  -addext subjectAltName=IP:127.0.0.1 -addext basicConstraints=CA:FALSE)",
                   "sh", directory.string()});
  if (made.status != 0) throw std::runtime_error("openssl failed: " + made.err);
}

LoopbackServer::LoopbackServer() {
  // A port free when asked; the server binds it a moment later.
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool bound = ::bind(socket, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                     ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(socket);
  if (!bound) throw std::runtime_error("no free port");
  port_ = ntohs(address.sin_port);
}

LoopbackServer::~LoopbackServer() { stop(pid_); }

std::string LoopbackServer::url(const std::string& scheme) const {
  return scheme + "://127.0.0.1:" + std::to_string(port_) + "/";
}

HttpsServer::HttpsServer(const fs::path& root, std::string_view extra_server_config) {
  pid_ = start_nginx(dir_, root, port_, " ssl",
                     "ssl_certificate " + certificates_.certificate.string() + "; ssl_certificate_key " +
                         certificates_.key.string() + "; " + std::string(extra_server_config),
                     certificates_.ca);
}

HttpServer::HttpServer(const fs::path& root) { pid_ = start_nginx(dir_, root, port_, "", "", {}); }

HostileServer::HostileServer(const std::string& mode, std::string_view content) {
  write_text(dir_ / "content", content);
  pid_ = start({"python3", (source_dir() / "tests/hostile_https_server.py").string(), mode, std::to_string(port_),
                certificates_.certificate.string(), certificates_.key.string(), (dir_ / "content").string()},
               dir_ / "server.out", port_, certificates_.ca);
}

}  // namespace zorvi::testing
