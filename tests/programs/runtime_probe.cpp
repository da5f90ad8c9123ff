// A launcher or helper that creates its runtime first thing, as a real one does.
//   runtime_probe launcher INTERFACE BUILD DATA_DIR [GATE]   reports health, once GATE exists if given
//   runtime_probe helper ROLE BUILD
// Prints "attached" or "empty" and the startup variables still set, drops its
// runtime and stays until killed; or prints "CODE: MESSAGE".
#include "client/app/launcher_attempts.hpp"
#include "client/app/launcher_runtime.hpp"
#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return program::reporting([&] {
    std::unique_ptr<zorvi::LauncherRuntime> launcher;
    std::unique_ptr<zorvi::LauncherHelperRuntime> helper;
    if (args.at(0) == "launcher") {
      launcher = zorvi::LauncherRuntime::attach(args.at(1), args.at(2), args.at(3));
      if (args.size() == 5) std::cout << "waiting" << std::endl;
      for (int tick = 0; args.size() == 5 && tick < 6000 && !std::filesystem::exists(args[4]); ++tick) ::usleep(5000);
      zorvi::report_launcher_health(launcher.get());
      zorvi::report_launcher_health(launcher.get());  // does nothing the second time
    } else {
      helper = zorvi::LauncherHelperRuntime::attach(args.at(1), args.at(2));
    }
    std::string line = launcher || (helper && helper->guarded()) ? "attached" : "empty";
    for (std::string_view name : zorvi::launcher_startup_variables)
      if (::getenv(std::string(name).c_str()) != nullptr) line += " " + std::string(name);
    launcher.reset();  // the leases must outlive the runtime objects
    helper.reset();
    std::cout << line << std::endl;
    for (;;) ::pause();
    return 0;
  });
}
