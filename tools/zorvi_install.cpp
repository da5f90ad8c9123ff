// zorvi-install: installs the initial package this installer was sealed to.
//
//   zorvi-install PACKAGE DATA_FOLDER [--repair] [--shortcut]
//   zorvi-install --status DATA_FOLDER
//
// The seal is the SHA-256 of the package's descriptor, fixed when the
// installer is built (ZORVI_INITIAL_PACKAGE_SHA256). The result record is
// printed as JSON on standard output; a failure prints "zorvi: " lines on
// standard error and exits 1, a bad command line exits 2.
#include <cstdio>
#include <iostream>
#include <string_view>

#include "client/app/native_install.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"

#ifndef ZORVI_INITIAL_PACKAGE_SHA256
#define ZORVI_INITIAL_PACKAGE_SHA256 ""
#endif

namespace {

void print(const zorvi::Error& error) {
  std::fprintf(stderr, "zorvi: %s\n", error.what());
  for (const std::string& detail : error.details) std::fprintf(stderr, "zorvi: %s\n", detail.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string_view(argv[1]) == "--status") {
    try {
      std::cout << zorvi::NativeInstaller::status(argv[2]).to_json().dump() << std::endl;
      return 0;
    } catch (const zorvi::Error& error) {
      print(error);
      return 1;
    }
  }
  zorvi::NativeInstallRequest request;
  int operands = 0;
  for (int index = 1; index < argc; ++index) {
    const std::string_view word = argv[index];
    if (word == "--repair") {
      request.repair = true;
    } else if (word == "--shortcut") {
      request.shortcut = true;
    } else if (operands < 2 && !word.starts_with("--")) {
      (operands++ == 0 ? request.package : request.data_folder) = argv[index];
    } else {
      operands = -1;
      break;
    }
  }
  if (operands != 2) {
    std::fputs("usage: zorvi-install PACKAGE DATA_FOLDER [--repair] [--shortcut] | --status DATA_FOLDER\n", stderr);
    return 2;
  }
  try {
    zorvi::initialize_client_runtime();
    const std::string_view seal = ZORVI_INITIAL_PACKAGE_SHA256;
    zorvi::NativeSetupCallbacks callbacks;
    callbacks.seed_launcher = zorvi::package_launcher_seeder(request.package, seal);
    const zorvi::NativeInstallResult result = zorvi::NativeInstaller::install(request, seal, callbacks);
    std::cout << result.to_json().dump() << std::endl;
    return 0;
  } catch (const zorvi::Error& error) {
    print(error);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "zorvi: %s\n", failure.what());
  }
  return 1;
}
