#pragma once

#include "tests/support/test_support.hpp"

namespace zorvi::testing {

// A fresh test CA and a certificate for 127.0.0.1 signed by it, made in
// `directory` by the openssl command.
struct TestCertificates {
  explicit TestCertificates(const std::filesystem::path& directory);
  std::filesystem::path ca, certificate, key;
};

// A server process on a free port of 127.0.0.1, its files in a folder of its
// own; stopped by its pid when the object goes.
class LoopbackServer {
 public:
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

 protected:
  LoopbackServer();
  ~LoopbackServer();
  std::string url(const std::string& scheme) const;  // "SCHEME://127.0.0.1:PORT/"

  TempDir dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// nginx serving `root` over HTTPS, with a fresh test CA made by the openssl
// command.
class HttpsServer : public LoopbackServer {
 public:
  explicit HttpsServer(const std::filesystem::path& root, std::string_view extra_server_config = {});
  std::string base_url() const { return url("https"); }
  std::filesystem::path ca_bundle() const { return certificates_.ca; }  // PEM of the test CA

 private:
  TestCertificates certificates_{dir_.path()};
};

// nginx serving `root` over plain HTTP, for clients of outside test suites,
// which serve no TLS.
class HttpServer : public LoopbackServer {
 public:
  explicit HttpServer(const std::filesystem::path& root);
  std::string base_url() const { return url("http"); }
};

// tests/hostile_https_server.py answering every GET with `content` in one
// misbehaviour (its modes are listed in the script) and echoing every POST.
class HostileServer : public LoopbackServer {
 public:
  HostileServer(const std::string& mode, std::string_view content);
  std::string base_url() const { return url("https"); }
  std::filesystem::path ca_bundle() const { return certificates_.ca; }

 private:
  TestCertificates certificates_{dir_.path()};
};

}  // namespace zorvi::testing
