// The installer with its seal given on the command line, for tests that make
// their own packages; never installed. A crash-test build: see durable_kill.hpp.
//   install_entry SEAL PACKAGE DATA_FOLDER [--repair] [--shortcut]
//   install_entry --uninstall DATA_FOLDER
// Prints the result record, or "CODE: MESSAGE" and exits 1.
#include "client/app/native_install.hpp"
#include "tests/programs/durable_kill.hpp"
#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  durable_kill::from_environment();
  zorvi::NativeInstallRequest request{argv[2], argc > 3 ? argv[3] : "", false, false};
  for (int index = 4; index < argc; ++index) {
    const std::string_view word = argv[index];
    (word == "--repair" ? request.repair : request.shortcut) = true;
  }
  return program::reporting([&] {
    if (std::string_view(argv[1]) == "--uninstall")
      return std::cout << zorvi::NativeInstaller::uninstall({argv[2]}, {}).to_json().dump() << std::endl ? 0 : 1;
    const zorvi::NativeSetupCallbacks callbacks{{}, {}, zorvi::package_launcher_seeder(request.package, argv[1])};
    std::cout << zorvi::NativeInstaller::install(request, argv[1], callbacks).to_json().dump() << std::endl;
    return 0;
  });
}
