#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/test_support.hpp"

namespace zorvi::testing {

// A fresh test CA and a certificate for 127.0.0.1 signed by it, made in
// `directory` by the openssl command.
struct TestCertificates {
  explicit TestCertificates(const std::filesystem::path& directory);
  std::filesystem::path ca, certificate, key;
};

// nginx serving `root` over HTTPS on 127.0.0.1 on a free port, with a fresh
// test CA made by the openssl command; stopped by its pid in the destructor.
class HttpsServer {
 public:
  explicit HttpsServer(const std::filesystem::path& root, std::string_view extra_server_config = {});
  ~HttpsServer();
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  std::string base_url() const;             // "https://127.0.0.1:PORT/"
  std::filesystem::path ca_bundle() const;  // PEM of the test CA
  int pid() const;

 private:
  TempDir dir_;
  TestCertificates certificates_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// nginx serving `root` over plain HTTP on 127.0.0.1, for clients of outside
// test suites, which serve no TLS.
class HttpServer {
 public:
  explicit HttpServer(const std::filesystem::path& root);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::string base_url() const;  // "http://127.0.0.1:PORT/"

 private:
  TempDir dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// tests/hostile_https_server.py answering every GET with `content` in one
// misbehaviour (its modes are listed in the script) and echoing every POST.
class HostileServer {
 public:
  HostileServer(const std::string& mode, std::string_view content);
  ~HostileServer();
  HostileServer(const HostileServer&) = delete;
  HostileServer& operator=(const HostileServer&) = delete;

  std::string base_url() const;
  std::filesystem::path ca_bundle() const;

 private:
  TempDir dir_;
  TestCertificates certificates_;
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace zorvi::testing
