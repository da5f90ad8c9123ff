#include "client/platform/native_platform.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"

namespace zorvi {
namespace {

constexpr int max_system_links = 16;
constexpr std::size_t max_link_text = 4095;

bool absolute_env(const char* name, std::filesystem::path& out) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return false;
  out = std::filesystem::path(value);
  return out.has_root_directory();
}

bool is_system_link(const std::filesystem::path& parent, const struct stat& entry) {
  if (!S_ISLNK(entry.st_mode) || entry.st_uid != 0) return false;
  struct stat directory{};
  return ::stat(parent.c_str(), &directory) == 0 && directory.st_uid == 0 && (directory.st_mode & 022) == 0;
}

std::filesystem::path read_link(const std::filesystem::path& link) {
  std::array<char, max_link_text + 1> buffer{};
  const ssize_t length = ::readlink(link.c_str(), buffer.data(), max_link_text);
  require(length > 0, "unsafe_path", "Cannot read a system link");
  return std::filesystem::path(std::string(buffer.data(), static_cast<std::size_t>(length)));
}

// Walks `current` from its root. Returns true with `current` set to the result
// when the walk ends without meeting a system link; returns false with
// `current` rewritten through the one link it expanded.
bool walk_to_system_link(std::filesystem::path& current, int& expansions) {
  std::filesystem::path result = current.root_path();
  const std::filesystem::path relative = current.relative_path();
  for (auto part = relative.begin(); part != relative.end(); ++part) {
    if (part->empty()) continue;
    const std::filesystem::path candidate = result / *part;
    struct stat entry{};
    if (::lstat(candidate.c_str(), &entry) != 0) {
      for (auto rest = part; rest != relative.end(); ++rest) result /= *rest;
      current = result;
      return true;
    }
    if (!is_system_link(result, entry)) {
      result = candidate;
      continue;
    }
    require(++expansions <= max_system_links, "unsafe_path", "Too many system links in a path");
    const std::filesystem::path target = read_link(candidate);
    std::filesystem::path next = target.has_root_directory() ? target : result / target;
    for (auto rest = std::next(part); rest != relative.end(); ++rest) next /= *rest;
    current = next.lexically_normal();
    return false;
  }
  current = result;
  return true;
}

}  // namespace

std::string native_platform() { return "linux-x86_64"; }

std::filesystem::path user_data_root() {
  std::filesystem::path home;
  require(absolute_env("HOME", home), "user_path", "HOME must identify an absolute user directory");
  std::filesystem::path xdg;
  if (absolute_env("XDG_DATA_HOME", xdg)) return xdg / "zorvi";
  return home / ".local/share/zorvi";
}

std::filesystem::path resolve_system_links(const std::filesystem::path& path) {
  std::filesystem::path current = std::filesystem::absolute(path).lexically_normal();
  int expansions = 0;
  while (!walk_to_system_link(current, expansions)) {
  }
  return current;
}

void require_path_room(const std::filesystem::path&, const std::filesystem::path&, std::size_t) {}

std::filesystem::path safe_join(const std::filesystem::path& base, std::string_view text, bool portable) {
  validate_relative_path(text, portable);
  std::filesystem::path result = base;
  std::size_t start = 0;
  while (start <= text.size()) {
    const std::size_t slash = std::min(text.find('/', start), text.size());
    result /= std::string(text.substr(start, slash - start));
    struct stat entry{};
    require(!(::lstat(result.c_str(), &entry) == 0 && S_ISLNK(entry.st_mode)), "unsafe_path",
            "Managed path contains a symbolic link");
    start = slash + 1;
  }
  return result;
}

}  // namespace zorvi
