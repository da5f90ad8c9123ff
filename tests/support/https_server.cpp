#include "tests/support/https_server.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace zorvi::testing {
namespace {

void openssl(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv{"openssl"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  const CommandResult result = run_command(argv);
  if (result.status != 0) throw std::runtime_error("openssl failed: " + result.err);
}

// Free when asked; the server binds it a moment later.
int free_port() {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(socket, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("no free port");
  ::close(socket);
  return ntohs(address.sin_port);
}

void stop(pid_t pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

// Starts `argv` with its output in `log`, and returns once a TLS handshake
// with the server on `port` succeeds under `ca` (with no `ca`, once a plain
// HTTP request is answered).
pid_t start(const std::vector<std::string>& argv, const std::filesystem::path& log, int port,
            const std::filesystem::path& ca) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(out, 1);
    ::dup2(out, 2);
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  const std::string peer = "127.0.0.1:" + std::to_string(port);
  for (int attempt = 0; attempt < 400; ++attempt) {
    if (::waitpid(pid, nullptr, WNOHANG) != 0) throw std::runtime_error(argv[0] + " ended: " + read_text(log));
    const std::vector<std::string> probe =
        ca.empty()
            ? std::vector<std::string>{"curl", "-s", "-o", "/dev/null", "http://" + peer + "/"}
            : std::vector<std::string>{
                  "openssl", "s_client", "-connect", peer, "-CAfile", ca.string(), "-verify_return_error", "-brief"};
    if (run_command(probe).status == 0) return pid;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  stop(pid);
  throw std::runtime_error(argv[0] + " never accepted TLS: " + read_text(log));
}

}  // namespace

TestCertificates::TestCertificates(const std::filesystem::path& directory)
    : ca(directory / "ca.pem"), certificate(directory / "server.pem"), key(directory / "server.key") {
  const std::string ca_key = (directory / "ca.key").string();
  const std::vector<std::string> ec{"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2"};
  std::vector<std::string> authority{"req",  "-x509",     "-keyout", ca_key,
                                     "-out", ca.string(), "-subj",   "/CN=Zorvi Test CA"};
  authority.insert(authority.end(), ec.begin(), ec.end());
  openssl(authority);
  std::vector<std::string> server{"req",     "-x509",
                                  "-CA",     ca.string(),
                                  "-CAkey",  ca_key,
                                  "-keyout", key.string(),
                                  "-out",    certificate.string(),
                                  "-subj",   "/CN=127.0.0.1",
                                  "-addext", "subjectAltName=IP:127.0.0.1",
                                  "-addext", "basicConstraints=CA:FALSE"};
  server.insert(server.end(), ec.begin(), ec.end());
  openssl(server);
}

namespace {

// nginx in the foreground, all its paths in `prefix`, serving `root` on `port`.
pid_t start_nginx(const TempDir& dir, const std::filesystem::path& root, int port, std::string_view listen_options,
                  std::string_view server_config, const std::filesystem::path& ca) {
  const std::string prefix = dir.path().string();
  std::filesystem::create_directory(dir / "temp");
  write_text(dir / "nginx.conf",
             "daemon off; master_process off; user root; worker_processes 1;\n"
             "pid " +
                 prefix + "/nginx.pid; error_log " + prefix +
                 "/error.log;\n"
                 "events { worker_connections 64; }\n"
                 "http { access_log off; default_type application/octet-stream;\n"
                 "  client_body_temp_path " +
                 prefix + "/temp; proxy_temp_path " + prefix +
                 "/temp;\n"
                 "  fastcgi_temp_path " +
                 prefix + "/temp; uwsgi_temp_path " + prefix +
                 "/temp;\n"
                 "  scgi_temp_path " +
                 prefix +
                 "/temp;\n"
                 "  server { listen 127.0.0.1:" +
                 std::to_string(port) + std::string(listen_options) + "; root " + root.string() + ";\n    " +
                 std::string(server_config) + "\n  }\n}\n");
  return start({"/usr/sbin/nginx", "-p", prefix, "-c", prefix + "/nginx.conf", "-e", prefix + "/error.log"},
               dir / "nginx.out", port, ca);
}

}  // namespace

HttpsServer::HttpsServer(const std::filesystem::path& root, std::string_view extra_server_config)
    : certificates_(dir_.path()), port_(free_port()) {
  pid_ = start_nginx(dir_, root, port_, " ssl",
                     "ssl_certificate " + certificates_.certificate.string() + "; ssl_certificate_key " +
                         certificates_.key.string() + "; " + std::string(extra_server_config),
                     certificates_.ca);
}

HttpServer::HttpServer(const std::filesystem::path& root) : port_(free_port()) {
  pid_ = start_nginx(dir_, root, port_, "", "", {});
}

HttpServer::~HttpServer() { stop(pid_); }
std::string HttpServer::base_url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

HttpsServer::~HttpsServer() { stop(pid_); }
std::string HttpsServer::base_url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/"; }
std::filesystem::path HttpsServer::ca_bundle() const { return certificates_.ca; }
int HttpsServer::pid() const { return pid_; }

HostileServer::HostileServer(const std::string& mode, std::string_view content)
    : certificates_(dir_.path()), port_(free_port()) {
  write_text(dir_ / "content", content);
  pid_ = start({"python3", (source_dir() / "tests/hostile_https_server.py").string(), mode, std::to_string(port_),
                certificates_.certificate.string(), certificates_.key.string(), (dir_ / "content").string()},
               dir_ / "server.out", port_, certificates_.ca);
}

HostileServer::~HostileServer() { stop(pid_); }
std::string HostileServer::base_url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/"; }
std::filesystem::path HostileServer::ca_bundle() const { return certificates_.ca; }

}  // namespace zorvi::testing
