#include "tests/support/sample_launcher.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "client/domain/bootstrap_contract.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/native_platform.hpp"
#include "tests/support/snapshot_support.hpp"

namespace zorvi::testing {
namespace fs = std::filesystem;
namespace {

// Packs a release's tree and gives its manifest: `fields` over the tree's,
// the archive named flat so that it can also travel in an initial package.
std::string release_manifest(const fs::path& tree, const fs::path& archive, const json& fields,
                             const std::string& target) {
  pack_tree(tree, archive);
  json document = python_manifest(tree, archive);
  document.update(fields);
  document["archive"]["target"] = target;
  return document.dump();
}

// Signs a release's archive as NAME.tar.zst and its manifest as `target`.
void publish_release(const TufRepository& repository, const std::string& name, const fs::path& archive,
                     const std::string& target, const std::string& manifest) {
  const fs::path bytes = archive.parent_path() / (name + ".manifest.json");
  write_text(bytes, manifest);
  repository.run("target " + name + ".tar.zst @" + archive.string());
  repository.run("target " + target + " @" + bytes.string());
}

void strip(const std::string& program, const fs::path& to) { run_command({"strip", "-o", to, binary_dir() / program}); }

}  // namespace

SampleRelease::SampleRelease(const fs::path& folder, const std::string& build_id, std::size_t padding,
                             std::uint64_t padding_bytes, const std::string& maintenance)
    : build(build_id), tree(folder / ("tree-" + build_id)), archive(folder / (build_id + ".tar.zst")) {
  fs::create_directories(tree / "bin");
  strip("zorvi-sample-launcher", tree / "bin/zorvi");
  fs::copy_file(tree / "bin/zorvi", tree / "bin/zorvi-gui");
  json helpers = json::array();
  if (!maintenance.empty()) {
    strip(maintenance, tree / "bin/zorvi-maintenance");
    fs::copy_file(tree / "bin/zorvi-maintenance", tree / "bin/zorvi-maintenance-gui");
    helpers = {{{"path", "bin/zorvi-maintenance"}, {"role", "maintenance"}, {"lease_abi", 1}},
               {{"path", "bin/zorvi-maintenance-gui"}, {"role", "maintenance-gui"}, {"lease_abi", 1}}};
  }
  write_text(tree / "build-id", build + "\n");
  if (padding > 0)
    run_python(
        "import os, sys\nos.mkdir(sys.argv[1])\nfor i in range(int(sys.argv[2])):\n"
        "    open(os.path.join(sys.argv[1], 'data%04d' % i), 'wb').write(os.urandom(int(sys.argv[3])))",
        {(tree / "data").string(), std::to_string(padding), std::to_string(padding_bytes / padding)});
  manifest = release_manifest(tree, archive, launcher_release_fields(build, helpers), "launcher-" + build + ".tar.zst");
  reference = launcher_reference(digest(manifest, "sha256"), build);
}

void SampleRelease::publish(const TufRepository& repository) const {
  publish_release(repository, "launcher-" + build, archive, launcher_manifest_target(), manifest);
}

SampleBootstrapRelease::SampleBootstrapRelease(const fs::path& folder, const std::string& build_id,
                                               const std::string& image)
    : build(build_id),
      tree(folder / ("bootstrap-tree-" + build_id)),
      archive(folder / ("bootstrap-" + build_id + ".tar.zst")) {
  const fs::path shortcut = tree / bootstrap_shortcut_executable;
  fs::create_directories(shortcut.parent_path());
  strip(image, tree / bootstrap_executable_posix);
  write_text(tree / ("build-" + build), build + "\n");
  strip("zorvi-shortcut", shortcut);
  fs::permissions(shortcut, fs::perms(0644));
  // The bundle's metadata, without which no shortcut to the installation is made.
  write_text(tree / bootstrap_shortcut_info_plist, "<plist version=\"1.0\"><dict/></plist>\n");
  json fields =
      R"({"bootstrap_abi": 1, "runtime_lease_abi": 1, "application_schema": {"minimum": 1, "maximum": 1}})"_json;
  fields.update({{"kind", bootstrap_release_kind}, {"build_id", build}});
  manifest = release_manifest(tree, archive, fields, "bootstrap-" + build + ".tar.zst");
}

void SampleBootstrapRelease::publish(const TufRepository& repository) const {
  publish_release(repository, "bootstrap-" + build, archive, "bootstrap-" + native_platform() + ".manifest.json",
                  manifest);
}

BootstrapInstall::BootstrapInstall() {
  fs::create_directories(bootstrap.parent_path());
  fs::copy_file(binary_dir() / "zorvi-bootstrap", bootstrap);
}

void BootstrapInstall::seed(const SampleRelease& release) const {
  store.seed_initial(release.manifest, release.archive, {});
}

CommandResult BootstrapInstall::start(const std::vector<std::string>& arguments, const std::string& mode,
                                      const std::map<std::string, std::string>& extra) const {
  std::vector<std::string> argv{"env", "ZORVI_SAMPLE_LAUNCHER_LOG=" + log.string(), "ZORVI_SAMPLE_LAUNCHER=" + mode};
  for (const auto& [name, value] : extra) argv.push_back(name + "=" + value);
  argv.insert(argv.end(), {bootstrap.string(), "--data-dir", root.string()});
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return run_command(argv);
}

CommandResult BootstrapInstall::stage(const TufRepository& repository,
                                      const std::vector<std::string>& variables) const {
  std::vector<std::string> argv{"env", "ZORVI_SAMPLE_LAUNCHER_LOG=" + log.string()};
  argv.insert(argv.end(), variables.begin(), variables.end());
  argv.insert(argv.end(), {binary_dir() / "launcher_stage", repository.trust, repository.server->base_url(),
                           repository.server->ca_bundle(), root});
  return run_command(argv);
}

void BootstrapInstall::expect_intact(const json& reference) const {
  SCOPED_TRACE(reference.dump());
  EXPECT_NO_THROW(verify_snapshot_tree(store.manifest(reference).snapshot, store.payload(reference), {}));
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

SamplePackage::SamplePackage(const std::string& build) {
  SampleBootstrapRelease(repository.dir.path(), build).publish(repository);
  SampleRelease(repository.dir.path(), build).publish(repository);
}

CommandResult SamplePackage::build(const std::string& origin, const std::vector<std::string>& options) {
  std::vector<std::string> argv{
      source_dir() / "tools/zorvi-package", "build", repository.repo, package, "--origin", origin, "--ca-bundle",
      repository.server->ca_bundle()};
  argv.insert(argv.end(), options.begin(), options.end());
  const CommandResult built = run_command(argv);
  if (built.status == 0) seal = built.out.substr(0, 64);
  return built;
}

}  // namespace zorvi::testing
