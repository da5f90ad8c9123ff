#include "tests/support/sample_launcher.hpp"

#include <fstream>
#include <sstream>

#include "client/domain/crypto.hpp"
#include "client/domain/bootstrap_contract.hpp"
#include "client/domain/launcher_contract.hpp"
#include "client/platform/native_platform.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi::testing {
namespace fs = std::filesystem;

SampleRelease::SampleRelease(const fs::path& folder, const std::string& build_id, std::size_t padding,
                             std::uint64_t padding_bytes)
    : build(build_id), tree(folder / ("tree-" + build_id)), archive(folder / (build_id + ".tar.zst")) {
  fs::create_directories(tree / "bin");
  run_command({"strip", "-o", tree / "bin/zorvi", binary_dir() / "zorvi-sample-launcher"});
  fs::copy_file(tree / "bin/zorvi", tree / "bin/zorvi-gui");
  write_text(tree / "build-id", build + "\n");
  if (padding > 0) {
    fs::create_directories(tree / "data");
    run_python("import os, sys\nfor i in range(int(sys.argv[2])):\n"
               "    open(os.path.join(sys.argv[1], 'data%04d' % i), 'wb').write(os.urandom(int(sys.argv[3])))",
               {(tree / "data").string(), std::to_string(padding), std::to_string(padding_bytes / padding)});
  }
  pack_tree(tree, archive);
  json document = python_manifest(tree, archive);
  document.update({{"kind", "zorvi-launcher-release"}, {"build_id", build}, {"bootstrap_abi", 1}, {"health_abi", 1},
                   {"staging_abi", 1}, {"runtime_lease_abi", 2}, {"console_interrupt_abi", 1},
                   {"application_schema", {{"minimum", 1}, {"maximum", 1}}}, {"gui_executable", "bin/zorvi-gui"},
                   {"runtime_helpers", json::array()}});
  // Flat, so that the archive can also travel in an initial package.
  document["archive"]["target"] = "launcher-" + build + ".tar.zst";
  manifest = document.dump();
  reference = launcher_reference(digest(manifest, "sha256"), build);
}

void SampleRelease::publish(const TufRepository& repository) const {
  const fs::path bytes = archive.parent_path() / (build + ".manifest.json");
  write_text(bytes, manifest);
  repository.run("target launcher-" + build + ".tar.zst @" + archive.string());
  repository.run("target " + launcher_manifest_target() + " @" + bytes.string());
}

SampleBootstrapRelease::SampleBootstrapRelease(const fs::path& folder, const std::string& build_id,
                                               const std::string& image)
    : build(build_id), tree(folder / ("bootstrap-tree-" + build_id)), archive(folder / ("bootstrap-" + build_id + ".tar.zst")) {
  const fs::path shortcut = tree / bootstrap_shortcut_executable;
  fs::create_directories(shortcut.parent_path());
  run_command({"strip", "-o", tree / bootstrap_executable_posix, binary_dir() / image});
  write_text(tree / ("build-" + build), build + "\n");
  run_command({"strip", "-o", shortcut, binary_dir() / "zorvi-shortcut"});
  fs::permissions(shortcut, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
  pack_tree(tree, archive);
  json document = python_manifest(tree, archive);
  document.update({{"kind", bootstrap_release_kind}, {"build_id", build}, {"bootstrap_abi", 1},
                   {"runtime_lease_abi", 1}, {"application_schema", {{"minimum", 1}, {"maximum", 1}}}});
  document["archive"]["target"] = "bootstrap-" + build + ".tar.zst";
  manifest = document.dump();
}

void SampleBootstrapRelease::publish(const TufRepository& repository) const {
  const fs::path bytes = archive.parent_path() / ("bootstrap-" + build + ".manifest.json");
  write_text(bytes, manifest);
  repository.run("target bootstrap-" + build + ".tar.zst @" + archive.string());
  repository.run("target bootstrap-" + native_platform() + ".manifest.json @" + bytes.string());
}

BootstrapInstall::BootstrapInstall() {
  fs::create_directories(bootstrap.parent_path());
  fs::copy_file(binary_dir() / "zorvi-bootstrap", bootstrap);
}

void BootstrapInstall::seed(const SampleRelease& release) const { store.seed_initial(release.manifest, release.archive, {}); }

CommandResult BootstrapInstall::start(const std::vector<std::string>& arguments, const std::string& mode,
                                      const std::map<std::string, std::string>& extra) const {
  std::vector<std::string> argv{"env", "ZORVI_SAMPLE_LAUNCHER_LOG=" + log.string(), "ZORVI_SAMPLE_LAUNCHER=" + mode};
  for (const auto& [name, value] : extra) argv.push_back(name + "=" + value);
  argv.insert(argv.end(), {bootstrap.string(), "--data-dir", root.string()});
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return run_command(argv);
}

std::vector<std::string> BootstrapInstall::starts() const {
  std::vector<std::string> lines;
  std::ifstream in(log);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string BootstrapInstall::slots() const {
  const json state = store.load();
  std::string text;
  for (const json& slot : {state["active"], state["rollback"], state["candidate"], state["failed_candidate"]}) {
    const json& reference = slot.is_object() && slot.contains("reference") ? slot["reference"] : slot;
    text += (text.empty() ? "" : " ") + (reference.is_object() ? reference["build_id"].get<std::string>() : "-");
  }
  return text;
}

}  // namespace zorvi::testing
