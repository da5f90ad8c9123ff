// zorvi-bootstrap: the stable bootstrap. It never changes with a launcher
// update; it picks the launcher version to run, tries a new one under
// supervision, and otherwise replaces itself with a trusted version. When no
// version can start, a windowed start for a game starts that installed game
// directly from its records.
//
//   zorvi-bootstrap --data-dir DIR [--gui] [--game GAME] [--] [ARGS...]
//
// "--gui" runs the windowed interface (as the launch-document helper starts
// it), else the console one. "--game GAME" becomes the launcher arguments
// "--launch GAME". The first other word, or what follows "--", begins the
// arguments for the launcher, passed on as they stand.
// A pending bootstrap update is applied first; with ZORVI_BOOTSTRAP_START_CHECK
// set the program only shows that it starts, and exits 0 at once.
// ZORVI_STARTUP_LIMIT_MS shortens the time a new launcher version has to
// report health (1 to 30000; 15000 when unset). A failure prints "zorvi: "
// lines on standard error and exits 1; a bad command line exits 2.
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/app/bootstrap_update.hpp"
#include "client/app/install_guards.hpp"
#include "client/app/launcher_bootstrap.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/platform/process.hpp"

namespace {

constexpr std::int64_t default_startup_limit_ms = 15000;

struct Command {
  std::filesystem::path data_dir;
  std::string interface = "cli";
  std::vector<std::string> forwarded;
};

[[noreturn]] void usage(const std::string& why) {
  throw zorvi::Error("usage", why + "; usage: zorvi-bootstrap --data-dir DIR [--gui] [--game GAME] [--] [ARGS...]");
}

Command parse(int argc, char** argv) {
  Command command;
  std::optional<std::string> game;
  int index = 1;
  for (; index < argc; ++index) {
    const std::string_view word = argv[index];
    const bool has_value = index + 1 < argc;
    if (word == "--") {
      ++index;
      break;
    }
    if (word == "--gui" && command.interface != "gui") {
      command.interface = "gui";
    } else if (word == "--data-dir" && has_value && command.data_dir.empty() && argv[index + 1][0] != '\0') {
      command.data_dir = argv[++index];
    } else if (word == "--game" && has_value && !game) {
      game = argv[++index];
    } else if (word == "--gui" || word == "--data-dir" || word == "--game") {
      usage("Repeated or incomplete argument '" + std::string(word) + "'");
    } else {
      break;
    }
  }
  if (command.data_dir.empty()) usage("The data directory is required");
  if (game) command.forwarded = {"--launch", *game};
  command.forwarded.insert(command.forwarded.end(), argv + index, argv + argc);
  return command;
}

std::int64_t startup_limit() {
  const char* text = std::getenv("ZORVI_STARTUP_LIMIT_MS");
  if (text == nullptr || *text == '\0') return default_startup_limit_ms;
  const std::string_view value(text);
  std::int64_t limit = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), limit);
  // Out of range values go on to the bootstrap's own bound check and its message.
  if (error != std::errc() || end != value.data() + value.size())
    throw zorvi::Error("usage", "ZORVI_STARTUP_LIMIT_MS must be a whole number of milliseconds");
  return limit;
}

void print(const zorvi::Error& error) {
  std::fprintf(stderr, "zorvi: %s\n", error.what());
  for (const std::string& detail : error.details) std::fprintf(stderr, "zorvi: %s\n", detail.c_str());
  std::fflush(stderr);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    zorvi::initialize_client_runtime();
    // Read once: once an update has moved this image aside, the running
    // process no longer names the installed path.
    const std::filesystem::path image = zorvi::current_executable_path();
    // Before the lifetime lock: an update is applied only while no bootstrap
    // image of the installation runs, this one included. Its failure leaves
    // the installed bootstrap as it was, so the start goes on.
    try {
      zorvi::apply_pending_bootstrap_update(image);
    } catch (const zorvi::Error& error) {
      print(error);
    }
    // Taken before the command line is read: no update may replace this
    // image while it runs, even when it only prints a refusal.
    const std::unique_ptr<zorvi::NativeFileLock> lifetime = zorvi::bootstrap_lifetime(image);
    Command command;
    try {
      command = parse(argc, argv);
    } catch (const zorvi::Error& error) {
      print(error);
      return 2;
    }
    return zorvi::run_launcher_bootstrap(command.data_dir, command.interface, command.forwarded, startup_limit(),
                                         *lifetime);
  } catch (const zorvi::Error& error) {
    print(error);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "zorvi: %s\n", failure.what());
  }
  return 1;
}
