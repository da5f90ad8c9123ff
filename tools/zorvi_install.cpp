// zorvi-install: installs the initial package this installer was sealed to.
//
//   zorvi-install PACKAGE DATA_FOLDER [--repair] [--shortcut]
//   zorvi-install --status DATA_FOLDER
//   zorvi-install --uninstall DATA_FOLDER [--remove-data]
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

// The data-folder commands: a report, or the removal of the installation.
int folder_command(int argc, char** argv) {
  const std::string_view command = argv[1];
  try {
    if (command == "--status") {
      std::cout << zorvi::NativeInstaller::status(argv[2]).to_json().dump() << std::endl;
    } else {
      const zorvi::NativeUninstallRequest request{argv[2], argc == 4, 0};
      std::cout << zorvi::NativeInstaller::uninstall(request, {}).to_json().dump() << std::endl;
    }
    return 0;
  } catch (const zorvi::Error& error) {
    print(error);
    return 1;
  }
}

int main(int argc, char** argv) {
  if ((argc == 3 && std::string_view(argv[1]) == "--status") ||
      ((argc == 3 || (argc == 4 && std::string_view(argv[3]) == "--remove-data")) &&
       std::string_view(argv[1]) == "--uninstall"))
    return folder_command(argc, argv);
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
    std::fputs(
        "usage: zorvi-install PACKAGE DATA_FOLDER [--repair] [--shortcut] | --status DATA_FOLDER |\n"
        "       zorvi-install --uninstall DATA_FOLDER [--remove-data]\n",
        stderr);
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
