// zorvi-maintenance: the maintenance helper a launcher version carries. It
// removes the installation it belongs to, which the launcher itself cannot do
// while it runs from it.
//
//   zorvi-maintenance self uninstall --data-dir DIR [--remove-data]
//   zorvi-maintenance-gui --data-dir DIR
//
// It knows its role from its file name ("-gui" is the windowed one) and its
// build from the file "build-id" at the root of its version's tree. The
// windowed one reports its window as up before it starts the removal. The
// result is one JSON line on standard output; a failure is a "zorvi: " line
// on standard error and status 1, a bad command line status 2.
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "client/app/maintenance_handoff.hpp"
#include "client/app/maintenance_runtime.hpp"
#include "client/app/native_install.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/files.hpp"
#include "client/platform/process.hpp"

namespace {

namespace fs = std::filesystem;

// Clients and games still closing get this long before the removal gives up.
constexpr std::int64_t close_wait_ms = 30000;
constexpr std::size_t max_build_id_bytes = 256;

std::string own_build(const fs::path& image) {
  std::string build = zorvi::read_file(image.parent_path().parent_path() / "build-id", max_build_id_bytes);
  while (!build.empty() && (build.back() == '\n' || build.back() == '\r')) build.pop_back();
  zorvi::validate_identifier(build);
  return build;
}

struct Command {
  fs::path data_dir;
  bool remove_data = false;
};

Command parse(std::vector<std::string> arguments, bool gui) {
  const char* const usage = gui ? "Use --data-dir DIR" : "Use self uninstall --data-dir DIR [--remove-data]";
  if (!gui) {
    if (arguments.size() < 2 || arguments[0] != "self" || arguments[1] != "uninstall")
      throw zorvi::Error("usage", usage);
    arguments.erase(arguments.begin(), arguments.begin() + 2);
  }
  Command command;
  command.remove_data = !gui && !arguments.empty() && arguments.back() == "--remove-data";
  if (command.remove_data) arguments.pop_back();
  if (arguments.size() != 2 || arguments[0] != "--data-dir" || arguments[1].empty()) throw zorvi::Error("usage", usage);
  command.data_dir = zorvi::path_from_utf8(arguments[1]);
  return command;
}

zorvi::json uninstall(const zorvi::NativeUninstallRequest& request, bool gui) {
  if (!gui) return zorvi::NativeInstaller::uninstall(request, {}).to_json();
  // The window's thread stays free while the worker removes; here the
  // window is the terminal, so the result is all there is to show.
  zorvi::MaintenanceHandoff handoff;
  handoff.uninstall(request);
  handoff.join();
  const zorvi::json view = handoff.view();
  if (view["phase"] != "succeeded")
    throw zorvi::Error(view["problem"]["code"].get<std::string>(), view["problem"]["message"].get<std::string>());
  return view["result"];
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const fs::path image = zorvi::current_executable_path();
    const bool gui = image.filename().native().ends_with("-gui");
    const std::optional<zorvi::MaintenanceRuntime> runtime = zorvi::MaintenanceRuntime::attach(
        gui ? zorvi::helper_role_maintenance_gui : zorvi::helper_role_maintenance, own_build(image));
    Command command;
    try {
      command = parse(zorvi::process_arguments(argc, argv), gui);
    } catch (const zorvi::Error& error) {
      std::fprintf(stderr, "zorvi: %s\n", error.what());
      return 2;
    }
    if (runtime) runtime->report_ready();
    std::cout << uninstall({command.data_dir, command.remove_data, close_wait_ms}, gui).dump() << std::endl;
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zorvi: %s\n", error.what());
  }
  return 1;
}
