#include "client/platform/macos_paths.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "client/domain/error.hpp"
#include "client/domain/identifier.hpp"
#include "client/platform/file_identity.hpp"
#include "client/platform/native_platform.hpp"
#include "client/platform/unique_fd.hpp"
#include "client/platform/volume_facts.hpp"

namespace zorvi::macos_paths {
namespace {

constexpr std::size_t max_destination = 4096;
constexpr std::size_t max_components = 256;
constexpr std::size_t max_names = 16384;

[[noreturn]] void refuse(const char* message) { throw Error("unsafe_path", message); }

// The deepest existing entry of a path, reached one no-follow open at a time.
struct Walk {
  UniqueFd descriptor;
  std::filesystem::path found;
  std::filesystem::path missing;
  struct stat status{};
};

std::vector<std::string> components(const std::filesystem::path& path) {
  std::vector<std::string> parts;
  for (const auto& part : path.relative_path()) {
    if (!part.empty()) parts.push_back(part.native());
  }
  return parts;
}

// Opens one more component below `walk`; false when it does not exist.
bool step(Walk& walk, const std::string& name, bool file_allowed) {
  const int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | (file_allowed ? 0 : O_DIRECTORY);
  UniqueFd next(::openat(walk.descriptor.get(), name.c_str(), flags));
  if (!next) {
    if (errno == ENOENT) return false;
    refuse("macOS setup ancestry is linked, unavailable or changed");
  }
  struct stat opened{};
  struct stat named{};
  const bool valid = ::fstat(next.get(), &opened) == 0 &&
                     ::fstatat(walk.descriptor.get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
                     same_entry_and_type(opened, named) &&
                     (S_ISDIR(opened.st_mode) || (file_allowed && S_ISREG(opened.st_mode)));
  if (!valid) refuse("macOS setup ancestry is linked, unavailable or changed");
  walk.descriptor = std::move(next);
  walk.found /= name;
  return true;
}

Walk walk(const std::filesystem::path& path, bool allow_file) {
  const std::filesystem::path resolved = resolve_system_links(path);
  Walk result;
  result.descriptor = UniqueFd(::open("/", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!result.descriptor) refuse("Cannot anchor macOS setup ancestry");
  result.found = "/";
  const std::vector<std::string> parts = components(resolved);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i >= max_components || parts[i] == "..") refuse("macOS setup ancestry exceeds its bound");
    if (parts[i] == ".") continue;
    if (!result.missing.empty() || !step(result, parts[i], allow_file && i + 1 == parts.size())) {
      result.missing /= parts[i];
    }
  }
  const bool known = ::fstat(result.descriptor.get(), &result.status) == 0 &&
                     (S_ISDIR(result.status.st_mode) || (allow_file && S_ISREG(result.status.st_mode)));
  if (!known) refuse("Cannot identify the existing macOS setup ancestor");
  return result;
}

bool same_walk(const Walk& a, const Walk& b) {
  return same_entry_and_type(a.status, b.status) && a.found == b.found && a.missing == b.missing;
}

bool valid_utf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = 0;
    char32_t value = 0;
    if (lead < 0x80) {
      length = 1;
      value = lead;
    } else if (lead >= 0xc2 && lead <= 0xdf) {
      length = 2;
      value = lead & 0x1fu;
    } else if (lead >= 0xe0 && lead <= 0xef) {
      length = 3;
      value = lead & 0x0fu;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
      length = 4;
      value = lead & 0x07u;
    } else {
      return false;
    }
    if (i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xc0u) != 0x80u) return false;
      value = (value << 6) | (next & 0x3fu);
    }
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    if (overlong || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) return false;
    i += length;
  }
  return true;
}

// Everything a key is made of, looked at once.
struct Inspection {
  Walk target;
  Walk mount;
  VolumeFacts volume;
  VolumeAttributes attributes;
};

bool normal_absolute(const std::filesystem::path& path) {
  return path.has_root_directory() && path.native() == path.lexically_normal().native();
}

Inspection inspect(const std::filesystem::path& normal, bool allow_file) {
  Inspection seen;
  seen.target = walk(normal, allow_file);
  const std::optional<VolumeFacts> volume = volume_facts(seen.target.descriptor.get());
  if (!volume || !volume->local || volume->mount_path.empty()) {
    refuse("macOS setup control storage requires a local Linux volume");
  }
  seen.volume = *volume;
  if (!normal_absolute(seen.volume.mount_path) || !normal_absolute(seen.volume.mount_root)) {
    refuse("Unknown macOS volume mount path");
  }
  seen.mount = walk(seen.volume.mount_path, false);
  const std::optional<VolumeFacts> mounted = volume_facts(seen.mount.descriptor.get());
  if (!seen.mount.missing.empty() || seen.mount.status.st_dev != seen.target.status.st_dev || !mounted ||
      mounted->mount_id != seen.volume.mount_id) {
    refuse("macOS setup volume changed during inspection");
  }
  const std::optional<VolumeAttributes> attributes = volume_attributes(seen.mount.descriptor.get());
  if (!attributes) refuse("Cannot identify the macOS setup volume and its case behavior");
  seen.attributes = *attributes;
  return seen;
}

std::filesystem::path physical(const Walk& walk) {
  const std::optional<std::string> text = physical_path(walk.descriptor.get());
  if (!text) refuse("Cannot resolve the physical macOS setup path");
  const std::filesystem::path path = path_from_utf8(*text);
  if (!normal_absolute(path)) refuse("macOS setup ancestry has no stable physical path");
  return path;
}

// The path of the entry below its file system's root: where the mount shows
// that file system, then where the entry stands below the mount point.
std::string names_below_root(const Inspection& seen) {
  std::filesystem::path relative = physical(seen.target).lexically_relative(physical(seen.mount));
  if (relative.empty() || *relative.begin() == "..") refuse("macOS setup path escaped its mounted volume");
  if (relative == ".") relative.clear();
  relative /= seen.target.missing;
  const std::filesystem::path below = (seen.volume.mount_root / relative).lexically_normal();
  std::string names = path_utf8(below.relative_path());
  if (!names.empty() && names.back() == '/') names.pop_back();
  return names;
}

std::string key(const std::filesystem::path& path, bool allow_file) {
  const std::string text = path_utf8(path);
  if (text.empty() || text.size() > max_destination || text.find('\0') != std::string::npos) {
    refuse("macOS setup needs a bounded ordinary destination");
  }
  const std::filesystem::path normal = std::filesystem::absolute(path).lexically_normal();
  if (path_utf8(normal).size() > max_destination) refuse("macOS setup needs a bounded absolute destination");

  const Inspection first = inspect(normal, allow_file);
  const std::string names = names_below_root(first);
  if (!valid_utf8(names)) refuse("macOS setup names must be valid UTF-8");
  const std::optional<std::string> folded = name_key(names, first.attributes.case_sensitive, max_names);
  if (!folded) refuse("Normalized macOS setup names exceed their bound");

  // Nothing may have moved between the first look and the key.
  const Inspection again = inspect(normal, allow_file);
  if (!same_walk(first.target, again.target) || !same_walk(first.mount, again.mount) || first.volume != again.volume ||
      first.attributes != again.attributes) {
    refuse("macOS setup ancestry or volume changed during inspection");
  }
  std::string result =
      std::string(key_scheme()) + first.attributes.identity + (first.attributes.case_sensitive ? "/s" : "/i");
  if (!folded->empty()) result += "/" + *folded;
  return result;
}

}  // namespace

std::string path_key(const std::filesystem::path& path) { return key(path, true); }

std::string directory_key(const std::filesystem::path& path) { return key(path, false); }

}  // namespace zorvi::macos_paths
