// zorvi-shortcut: the desktop's handler of .zorvi-launch documents. Each
// opened document becomes one run of the installation's stable bootstrap;
// the helper stays until the last of those runs has ended.

#include <SDL3/SDL.h>

#include <sys/stat.h>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/app/install_guards.hpp"
#include "client/bootstrap/document_intake.hpp"
#include "client/bootstrap/launcher_gate.hpp"
#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/domain/json.hpp"
#include "client/platform/files.hpp"
#include "client/platform/macos_paths.hpp"
#include "client/platform/macos_shortcuts.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/process.hpp"
#include "client/platform/process_identity.hpp"
#include "client/platform/process_notifications.hpp"

namespace zorvi {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t job_slots = 16;
constexpr std::size_t max_shown_text = 4096;
constexpr std::size_t max_document_path = 4096;
constexpr std::chrono::seconds first_document_limit{5};
constexpr Sint32 waiting_poll_ms = 100;
constexpr Sint32 lost_notifications_poll_ms = 1000;

constexpr const char* usage_line = "Open a Zorvi launch document with this helper.\n";
constexpr const char* child_failed =
    "Zorvi could not complete this shortcut launch. Open Zorvi to inspect the game and operation history.";

// The one way the helper speaks once SDL is up. The line on standard error
// is what a headless run, where no box can appear, leaves behind.
void show(std::string_view text) {
  const std::string shown(utf8_prefix(text, max_shown_text));
  std::fprintf(stderr, "zorvi: %s\n", shown.c_str());
  std::fflush(stderr);
  SDL_ShowSimpleMessageBox(SDL_MESSAGEBOX_ERROR, "Zorvi", shown.c_str(), nullptr);
}

// One running shortcut launch: the bootstrap child and, once it has
// started, its process identity for the exit watch.
struct Job {
  std::optional<ChildProcess> child;
  json identity = nullptr;
};

// Everything the event loop owns. Torn down in a fixed order: the watch
// first, so that it never looks at a process object that is going away,
// then the jobs from the last slot to the first.
struct Helper {
  std::filesystem::path bootstrap;
  std::array<std::unique_ptr<Job>, job_slots> slots;
  std::unique_ptr<ProcessNotifications> notifications;
  std::atomic<bool> notifications_lost{false};
  Uint32 completion_event = 0;
  bool launched = false;
  bool handled = false;

  ~Helper() { tear_down(); }

  void tear_down() {
    notifications.reset();
    for (auto slot = slots.rbegin(); slot != slots.rend(); ++slot) slot->reset();
  }
};

bool has_names(std::filesystem::path path, std::initializer_list<std::string_view> names) {
  for (std::string_view name : names) {
    if (!path.has_relative_path() || path.filename() != name) return false;
    path = path.parent_path();
  }
  return true;
}

// The helper must run from its place in the installed app bundle, and the
// bootstrap it starts is the one beside that bundle.
std::filesystem::path installed_bootstrap() {
  const std::filesystem::path image = current_executable_path();
  require_complete_native_install_image(image);
  require(has_names(image, {"zorvi-shortcut", "MacOS", "Contents", "ZorviShortcut.app"}), "shortcut_bootstrap",
          "Launch-document handler needs its installed app bundle");
  const std::filesystem::path bin = image.parent_path().parent_path().parent_path().parent_path();
  require(bin.has_relative_path() && bin.filename() == "bin", "shortcut_bootstrap",
          "The signed helper needs its stable bootstrap directory");
  const std::filesystem::path bootstrap = bin / "zorvi-bootstrap";
  struct stat status{};
  require(::lstat(bootstrap.c_str(), &status) == 0 && S_ISREG(status.st_mode), "shortcut_bootstrap",
          "The signed helper's stable bootstrap is missing");
  (void)macos_paths::path_key(bootstrap);
  require_complete_native_install_image(bootstrap);
  return bootstrap;
}

std::filesystem::path document_path(const char* text) {
  require(text != nullptr, "shortcut_document", "No launch document was supplied");
  const std::size_t length = ::strnlen(text, max_document_path + 1);
  require(length >= 1 && length <= max_document_path, "shortcut_path", "Launch-document path exceeds its bound");
  const std::filesystem::path path = path_from_utf8(std::string_view(text, length));
  require(path.has_root_directory() && path.native() == path.lexically_normal().native() &&
              path.extension() == ".zorvi-launch",
          "shortcut_path", "Choose an ordinary Zorvi launch document");
  return path;
}

DesktopShortcut read_document(const std::filesystem::path& path) {
  (void)macos_paths::path_key(path);
  posix_files::require_private_path(path, false);
  const DesktopShortcut shortcut = parse_macos_launch_document(read_file(path, max_launch_document));
  (void)macos_paths::directory_key(shortcut.data_root);
  require_complete_native_install(shortcut.data_root);
  require_startable_launcher(shortcut.data_root);
  return shortcut;
}

std::vector<std::string> bootstrap_arguments(const DesktopShortcut& shortcut) {
  std::vector<std::string> arguments = {"--data-dir", path_utf8(shortcut.data_root), "--gui"};
  if (!shortcut.game_id.empty()) {
    arguments.push_back("--game");
    arguments.push_back(shortcut.game_id);
  }
  return arguments;
}

void launch(Helper& helper, const DesktopShortcut& shortcut) {
  std::size_t slot = 0;
  while (slot < job_slots && helper.slots[slot]) ++slot;
  require(slot < job_slots, "busy", "Too many Zorvi shortcut launches are still running");
  auto job = std::make_unique<Job>();
  Job& started = *job;
  job->child.emplace(
      helper.bootstrap, bootstrap_arguments(shortcut), shortcut.data_root, EnvironmentOverrides{},
      ChildStreams::Separated, ChildEnvironment::Clean,
      [&started](std::uint64_t pid) { started.identity = native_process_identity(pid); }, ChildGroup::Isolated,
      ChildControl::NoControl, std::vector<NativeHandle>{});
  helper.slots[slot] = std::move(job);
  helper.launched = true;
}

void handle_document(Helper& helper, const char* text) {
  try {
    launch(helper, read_document(document_path(text)));
  } catch (const std::exception& failure) {
    show(failure.what());
  }
  helper.handled = true;
}

// Reaps ended children, then hands the watch the identities of those still
// running. True while any job runs.
bool poll_jobs(Helper& helper) {
  json running = json::array();
  for (auto& slot : helper.slots) {
    if (!slot) continue;
    const std::optional<int> code = slot->child->poll();
    if (!code) continue;
    slot.reset();
    if (*code != 0) show(child_failed);
  }
  for (const auto& slot : helper.slots) {
    if (slot) running.push_back(slot->identity);
  }
  helper.notifications->update(running);
  return !running.empty();
}

int event_loop(Helper& helper) {
  const Clock::time_point deadline = Clock::now() + first_document_limit;
  while (true) {
    Sint32 wait = -1;
    if (!helper.launched) wait = waiting_poll_ms;
    else if (helper.notifications_lost.load(std::memory_order_acquire)) wait = lost_notifications_poll_ms;
    SDL_Event event;
    SDL_zero(event);
    if (!SDL_WaitEventTimeout(&event, wait)) {
      if (!helper.launched) {
        require(Clock::now() < deadline, "shortcut_document", "No launch document arrived");
        continue;
      }
    } else if (event.type == SDL_EVENT_DROP_FILE) {
      handle_document(helper, event.drop.data);
    }
    if (poll_jobs(helper) || !helper.handled) continue;
    if (!SDL_HasEvent(SDL_EVENT_DROP_FILE)) return helper.launched ? 0 : 1;
  }
}

// Runs on the watch's thread: touches only the flag and the event queue.
void on_notification(Helper& helper, const std::string& error) {
  if (!error.empty()) helper.notifications_lost.store(true);
  SDL_Event event;
  SDL_zero(event);
  event.type = helper.completion_event;
  if (!SDL_PushEvent(&event)) helper.notifications_lost.store(true);
}

int run_with_sdl() {
  DocumentIntake intake;  // outlives every event it queues
  Helper helper;
  int status = 1;
  try {
    require(intake.deliver(), "shortcut_document", "No launch document arrived");
    helper.bootstrap = installed_bootstrap();
    helper.completion_event = SDL_RegisterEvents(1);
    require(helper.completion_event != 0, "shortcut_events", "Cannot register local bootstrap completion");
    helper.notifications = std::make_unique<ProcessNotifications>();
    helper.notifications->start([&helper](const std::string& error) { on_notification(helper, error); });
    status = event_loop(helper);
  } catch (const std::exception& failure) {
    show(failure.what());
  }
  helper.tear_down();
  SDL_Quit();
  return status;
}

int run(int argc) {
  initialize_client_runtime();
  const std::filesystem::path image = current_executable_path();
  require_complete_native_install_image(image);
  // Held until the very end, so that no update replaces the bootstrap
  // while this helper may still start it.
  const std::unique_ptr<NativeFileLock> lifetime = bootstrap_lifetime(image);
  if (argc != 1) {
    std::fputs(usage_line, stderr);
    return 2;
  }
  SDL_SetHint("SDL_MAC_BACKGROUND_APP", "1");
  if (!SDL_Init(SDL_INIT_VIDEO | SDL_INIT_EVENTS)) {
    std::fprintf(stderr, "%s\n", SDL_GetError());
    return 1;
  }
  return run_with_sdl();
}

}  // namespace
}  // namespace zorvi

int main(int argc, char** argv) {
  (void)argv;
  try {
    return zorvi::run(argc);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
  }
  return 1;
}
