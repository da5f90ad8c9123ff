#include "client/platform/desktop_files.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <optional>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/eintr.hpp"
#include "client/platform/files.hpp"
#include "client/platform/posix_files.hpp"
#include "client/platform/process.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi::desktop_files {
namespace {

constexpr std::size_t max_environment_path = 4096;
constexpr std::size_t max_search_path = 32768;
constexpr std::size_t max_search_entries = 256;
constexpr std::size_t max_registration_file = 65536;
constexpr const char* fallback_search_path = "/usr/local/bin:/usr/bin:/bin";
constexpr const char* registration_failed = "Cannot register the installed Zorvi launch-document handler";

constexpr std::string_view mime_package =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<mime-info xmlns=\"http://www.freedesktop.org/standards/shared-mime-info\">\n"
    "  <mime-type type=\"application/x-zorvi-launch\">\n"
    "    <comment>Zorvi launch document</comment>\n"
    "    <sub-class-of type=\"application/json\"/>\n"
    "    <glob pattern=\"*.zorvi-launch\"/>\n"
    "  </mime-type>\n"
    "</mime-info>\n";

std::optional<std::filesystem::path> absolute_variable(const char* name) {
  const auto value = process_environment(name, max_environment_path);
  if (!value || value->empty() || value->front() != '/') return std::nullopt;
  return path_from_utf8(*value);
}

// A folder of the user's desktop data: made private when it is missing, and
// otherwise left as the user keeps it, as long as it is a directory.
void desktop_folder(const std::filesystem::path& folder) {
  if (!entry_present(folder)) private_directory(folder);
  struct stat status{};
  require(::lstat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode), "shortcut_api", registration_failed);
}

// Puts `text` at `file`. Nothing happens when the file already says it; a
// different file of that name is an older registration of the same
// installation and is replaced in one rename.
void install_file(const std::filesystem::path& file, std::string_view text) {
  struct stat status{};
  if (::lstat(file.c_str(), &status) == 0) {
    require(S_ISREG(status.st_mode), "shortcut_api", registration_failed);
    if (read_file(file, max_registration_file) == text) return;
  }
  const std::filesystem::path staged = file.native() + "." + random_id() + ".new";
  atomic_create(staged, text);
  if (::rename(staged.c_str(), file.c_str()) != 0) {
    const int error = errno;
    ::unlink(staged.c_str());
    throw Error("shortcut_api", with_errno(registration_failed, error));
  }
  sync_directory(file.parent_path());
}

std::optional<std::filesystem::path> find_program(std::string_view name) {
  const std::string search = process_environment("PATH", max_search_path).value_or(fallback_search_path);
  std::size_t start = 0;
  for (std::size_t entries = 0; start <= search.size() && entries < max_search_entries; ++entries) {
    const std::size_t end = std::min(search.find(':', start), search.size());
    const std::string folder = search.substr(start, end - start);
    start = end + 1;
    if (folder.empty() || folder.front() != '/') continue;
    const std::filesystem::path candidate = std::filesystem::path(folder) / name;
    struct stat status{};
    if (::stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(candidate.c_str(), X_OK) == 0)
      return std::filesystem::weakly_canonical(candidate);
  }
  return std::nullopt;
}

// The desktop reads its caches, not the files, so a registration counts
// only once the caches know it. A machine without the tool has no cache to
// update.
void run_when_present(std::string_view tool, const std::filesystem::path& folder) {
  const auto program = find_program(tool);
  if (!program) return;
  int status = -1;
  try {
    ChildProcess child(*program, {folder.native()}, "/", {}, ChildStreams::Separated, ChildEnvironment::Inherited);
    status = child.wait();
  } catch (const std::exception&) {
    status = -1;
  }
  require(status == 0, "shortcut_api", registration_failed);
}

// The database tools rewrite their caches in place, so two registrations
// at once, from any process, must take turns. The lock file sits among the
// menu entries, where the desktop ignores anything not named ".desktop".
UniqueFd registration_turn(const std::filesystem::path& applications) {
  const std::filesystem::path path = applications / ".zorvi-desktop.lock";
  UniqueFd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  const int result = lock ? retry_on_eintr([&] { return ::flock(lock.get(), LOCK_EX); }) : -1;
  require(result == 0, "shortcut_api", with_errno(registration_failed, errno));
  return lock;
}

}  // namespace

std::filesystem::path data_home() {
  if (auto xdg = absolute_variable("XDG_DATA_HOME")) return *xdg;
  const auto home = absolute_variable("HOME");
  require(home.has_value(), "user_path", "Cannot locate the user's Desktop");
  return *home / ".local/share";
}

std::string string_value(std::string_view text) {
  std::string value;
  for (char c : text) {
    if (c == '\\') value += "\\\\";
    else if (c == ' ' && value.empty()) value += "\\s";  // a leading blank would be trimmed
    else value += c;
  }
  return value;
}

std::string exec_line(const std::vector<std::string>& arguments) {
  std::string line;
  for (const std::string& argument : arguments) {
    if (!line.empty()) line += ' ';
    line += '"';
    for (char c : argument) {
      if (c == '"' || c == '`' || c == '$' || c == '\\') line += '\\';
      line += c;
      if (c == '%') line += '%';
    }
    line += '"';
  }
  // The Exec rules are applied first and the string rules over them, so a
  // quoting backslash is itself doubled.
  return string_value(line);
}

void register_launch_document_handler(const std::filesystem::path& helper, std::string_view bin_key) {
  const std::filesystem::path home = data_home();
  const std::filesystem::path applications = home / "applications";
  const std::filesystem::path packages = home / "mime/packages";
  desktop_folder(applications);
  desktop_folder(packages);
  const UniqueFd turn = registration_turn(applications);

  // The document's path travels in the environment: the helper takes no
  // command-line arguments at all.
  const std::string entry =
      "[Desktop Entry]\nType=Application\nName=Zorvi launch document\nExec=" + exec_line({"/usr/bin/env"}) +
      " ZORVI_LAUNCH_DOCUMENT=%f " + exec_line({path_utf8(helper)}) +
      "\nMimeType=" + std::string(launch_document_type) + ";\nNoDisplay=true\nTerminal=false\n";
  install_file(packages / "zorvi-launch.xml", mime_package);
  install_file(applications / ("zorvi-shortcut-" + digest(bin_key, "sha256") + ".desktop"), entry);
  run_when_present("update-mime-database", home / "mime");
  run_when_present("update-desktop-database", applications);
}

}  // namespace zorvi::desktop_files
