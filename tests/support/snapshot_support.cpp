#include "tests/support/snapshot_support.hpp"

namespace zorvi::testing {
namespace {

// `sh -c script sh args...`, which names its arguments "$1" and on.
void run_shell(const std::string& script, const std::vector<std::string>& args) {
  std::vector<std::string> argv{"sh", "-c", script, "sh"};
  argv.insert(argv.end(), args.begin(), args.end());
  if (const CommandResult result = run_command(argv); result.status != 0)
    throw std::runtime_error(script + ": " + result.err);
}

constexpr const char* manifest_script = R"PY(
import hashlib, json, os, sys
root, archive = sys.argv[1], sys.argv[2]
def sha256(path):
    return hashlib.file_digest(open(path, 'rb'), 'sha256').hexdigest()
files = []
for folder, _, names in os.walk(root):
    for name in names:
        path = os.path.join(folder, name)
        executable = bool(os.lstat(path).st_mode & 0o100)
        files.append({'path': os.path.relpath(path, root), 'length': os.lstat(path).st_size,
                      'mode': 0o755 if executable else 0o644, 'sha256': sha256(path)})
files.sort(key=lambda entry: entry['path'].encode())
print(json.dumps({
    'schema_version': 1, 'build_id': 'test-build', 'platform': 'linux-x86_64',
    'executable': next(entry['path'] for entry in files if entry['mode'] == 0o755),
    'archive': {'format': 'tar.zst-v1', 'target': 'snapshots/test.tar.zst',
                'length': os.path.getsize(archive), 'sha256': sha256(archive)},
    'files': files, 'expanded_length': sum(entry['length'] for entry in files)}))
)PY";

constexpr const char* craft_script = R"PY(
import io, json, sys, tarfile
entries = json.loads(sys.argv[2])
kinds = {'file': tarfile.REGTYPE, 'dir': tarfile.DIRTYPE, 'symlink': tarfile.SYMTYPE, 'hardlink': tarfile.LNKTYPE}
pax = any(entry.get('xattr') for entry in entries)
with tarfile.open(sys.argv[1], 'w', format=tarfile.PAX_FORMAT if pax else tarfile.GNU_FORMAT,
                  encoding='utf-8', errors='surrogateescape') as archive:
    for entry in entries:
        raw = bytes.fromhex(entry.get('raw_name_hex', ''))
        info = tarfile.TarInfo(raw.decode('utf-8', 'surrogateescape') if raw else entry['name'])
        info.type = kinds[entry.get('type', 'file')]
        info.mode = entry.get('mode', 0o755 if info.type == tarfile.DIRTYPE else 0o644)
        info.linkname = entry.get('link', '')
        info.pax_headers = {'SCHILY.xattr.user.origin': 'elsewhere'} if entry.get('xattr') else {}
        content = entry.get('content', '').encode() if info.type == tarfile.REGTYPE else b''
        info.size = len(content)
        archive.addfile(info, io.BytesIO(content))
)PY";

}  // namespace

void write_tree(const std::filesystem::path& root, const std::vector<TreeFile>& files) {
  for (const TreeFile& file : files) {
    const std::filesystem::path path = root / file.path;
    std::filesystem::create_directories(path.parent_path());
    write_text(path, file.content);
    std::filesystem::permissions(path, std::filesystem::perms(file.executable ? 0755 : 0644));
  }
}

void pack_tree(const std::filesystem::path& root, const std::filesystem::path& archive, const std::string& zstd_options,
               const std::string& tar_options) {
  // The options split into words; the paths stay whole.
  run_shell(
      "cd \"$1\" && find . -type f -printf '%P\\n' | LC_ALL=C sort > ../.files && tar --format=gnu --owner=0 "
      "--group=0 --numeric-owner --no-recursion $3 -cf - -T ../.files | zstd -q -c $2 > \"$4\" && rm ../.files",
      {root, zstd_options, tar_options, archive});
}

void compress(const std::filesystem::path& tar, const std::filesystem::path& archive, const std::string& zstd_options) {
  run_shell("zstd -q -c $2 < \"$1\" > \"$3\"", {tar, zstd_options, archive});
}

json python_manifest(const std::filesystem::path& root, const std::filesystem::path& archive) {
  return json::parse(run_python(manifest_script, {root.string(), archive.string()}));
}

SnapshotManifest parsed_manifest(const std::filesystem::path& root, const std::filesystem::path& archive) {
  return SnapshotManifest::parse(python_manifest(root, archive));
}

SnapshotManifest manifest_of_lengths(const std::vector<std::pair<std::string, std::uint64_t>>& files,
                                     std::uint64_t archive_length) {
  json manifest = R"({"schema_version": 1, "build_id": "b1", "platform": "linux-x86_64", "files": [],
      "archive": {"format": "tar.zst-v1", "target": "a.tar.zst"}, "expanded_length": 0})"_json;
  manifest["executable"] = files.front().first;
  manifest["archive"].update({{"length", archive_length}, {"sha256", std::string(64, '0')}});
  for (const auto& [path, length] : files) {
    const int mode = manifest["files"].empty() ? 0755 : 0644;
    manifest["files"].push_back({{"path", path}, {"length", length}, {"mode", mode}, {"sha256", std::string(64, '0')}});
    manifest["expanded_length"] = manifest["expanded_length"].get<std::uint64_t>() + length;
  }
  return SnapshotManifest::parse(manifest);
}

void craft_tar(const std::filesystem::path& tar, const json& entries) {
  run_python(craft_script, {tar.string(), entries.dump()});
}

CommandResult run_in_private_mounts(const std::string& script) {
  return run_command({"unshare", "--mount", "--propagation", "private", "env",
                      "TOOL=" + (binary_dir() / "snapshot_tool").string(), "sh", "-c", script});
}

json launcher_release_fields(const std::string& build, const json& helpers) {
  json fields = R"({"kind": "zorvi-launcher-release", "bootstrap_abi": 1, "health_abi": 1, "staging_abi": 1,
      "application_schema": {"minimum": 1, "maximum": 1}, "runtime_lease_abi": 2, "console_interrupt_abi": 1,
      "gui_executable": "bin/zorvi-gui"})"_json;
  fields.update({{"build_id", build}, {"runtime_helpers", helpers}});
  return fields;
}

}  // namespace zorvi::testing
