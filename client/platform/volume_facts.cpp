#include "client/platform/volume_facts.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <set>
#include <vector>

#include "client/platform/full_io.hpp"
#include "client/platform/unique_fd.hpp"

namespace zorvi::macos_paths {
namespace {

// A busy machine has a few thousand mounts; anything beyond this is not a
// table we should be parsing.
constexpr std::size_t max_mount_table = std::size_t{4} * 1024 * 1024;
constexpr std::size_t physical_buffer = 4097;

// Disk file systems that live on this machine and keep what is written to
// them. Network, FUSE, overlay and kernel pseudo file systems are absent on
// purpose: their names and identities are not this machine's to vouch for.
bool local_type(std::string_view type) {
  static const std::set<std::string_view> types = {"ext2", "ext3",     "ext4", "xfs",    "btrfs",    "f2fs",
                                                   "jfs",  "reiserfs", "zfs",  "nilfs2", "bcachefs", "tmpfs"};
  return types.contains(type);
}

std::optional<std::string> read_mount_table() {
  UniqueFd file(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!file) return std::nullopt;
  int error = 0;
  return read_to_end(file.get(), max_mount_table, error);
}

// Mount paths in the table escape blanks, tabs, newlines and backslashes as
// three octal digits.
std::string unescape(std::string_view field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const std::string_view digits = field.substr(i + 1, 3);
      if (digits.find_first_not_of("01234567") == std::string_view::npos) {
        out += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + (digits[2] - '0'));
        i += 3;
        continue;
      }
    }
    out += field[i];
  }
  return out;
}

std::vector<std::string_view> split_fields(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t start = 0;
  while (start < line.size()) {
    const std::size_t blank = std::min(line.find(' ', start), line.size());
    if (blank > start) fields.push_back(line.substr(start, blank - start));
    start = blank + 1;
  }
  return fields;
}

// One line: id, parent, major:minor, root, mount point, options, optional
// fields, "-", type, source, super options.
std::optional<VolumeFacts> parse_mount(std::string_view line, std::uint64_t wanted) {
  const std::vector<std::string_view> fields = split_fields(line);
  if (fields.size() < 7 || fields[0] != std::to_string(wanted)) return std::nullopt;
  std::size_t separator = 6;
  while (separator < fields.size() && fields[separator] != "-") ++separator;
  if (separator + 1 >= fields.size()) return std::nullopt;
  VolumeFacts facts;
  facts.mount_id = wanted;
  facts.mount_root = unescape(fields[3]);
  facts.mount_path = unescape(fields[4]);
  facts.type = std::string(fields[separator + 1]);
  facts.local = local_type(facts.type);
  return facts;
}

std::optional<std::uint64_t> mount_id(int descriptor) {
  struct statx status{};
  if (::statx(descriptor, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_MNT_ID, &status) != 0) return std::nullopt;
  if ((status.stx_mask & STATX_MNT_ID) == 0) return std::nullopt;
  return status.stx_mnt_id;
}

}  // namespace

std::optional<VolumeFacts> volume_facts(int descriptor) {
  const std::optional<std::uint64_t> id = mount_id(descriptor);
  if (!id) return std::nullopt;
  const std::optional<std::string> table = read_mount_table();
  if (!table) return std::nullopt;
  return find_mount(*table, *id);
}

std::optional<VolumeFacts> find_mount(std::string_view table, std::uint64_t id) {
  std::size_t start = 0;
  while (start < table.size()) {
    const std::size_t end = std::min(table.find('\n', start), table.size());
    if (auto facts = parse_mount(table.substr(start, end - start), id)) return facts;
    start = end + 1;
  }
  return std::nullopt;
}

std::optional<VolumeAttributes> volume_attributes(int descriptor) {
  struct stat status{};
  if (::fstat(descriptor, &status) != 0) return std::nullopt;
  // The file system's own device number names it; its names compare byte
  // for byte.
  return VolumeAttributes{std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev)), true};
}

std::optional<std::string> physical_path(int descriptor) {
  std::array<char, physical_buffer> buffer{};
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size());
  if (length <= 0 || static_cast<std::size_t>(length) >= buffer.size()) return std::nullopt;
  return std::string(buffer.data(), static_cast<std::size_t>(length));
}

std::optional<std::string> name_key(std::string_view names, bool, std::size_t limit) {
  if (names.size() > limit) return std::nullopt;
  return std::string(names);
}

std::string_view key_scheme() { return "linux-v1/"; }

}  // namespace zorvi::macos_paths
