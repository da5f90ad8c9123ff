// One game install under HOME, after cleaning up what an earlier, killed run
// left: prepared, reserved and filled from ARCHIVE, made ready, activated.
// A crash-test build: see durable_kill.hpp.
//   install_prepare MANIFEST ARCHIVE HOME [prepared|ready]  stops after that stage
//   install_prepare MANIFEST cleanup HOME [discard]         only the cleanup
// Prints what the cleanup found ("none", "prepared", "ready"), then "active"
// once installed; or "CODE: MESSAGE" and exits 1.
#include "client/domain/crypto.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/files.hpp"
#include "client/platform/install_readiness.hpp"
#include "client/platform/posix_files.hpp"
#include "tests/programs/durable_kill.hpp"
#include "tests/programs/program.hpp"

namespace fs = std::filesystem;
using namespace zorvi;

struct Install {
  SnapshotManifest manifest;
  fs::path home, versions = home / "versions", staging = home / "staging/1.0.0", destination = versions / "1.0.0",
                 operation = home / "operation";
  json reference = {{"version", "1.0.0"},
                    {"build_id", manifest.build_id},
                    {"manifest_ref", digest(manifest.document.dump(), "sha256")},
                    {"manifest_target", "game.json"}};

  json load(const char* name, bool ready) const {
    return entry_present(operation / name) ? parse_install_document(read_file(operation / name, 1 << 17), ready)
                                           : json();
  }
  // The preparation goes first: a ready document alone still proves the tree.
  void finish() const {
    if (fs::remove(operation / "preparation.json")) sync_directory(operation);
    require(!cleanup_install_preparation(operation, staging), "install_cleanup", "Install control files remain");
  }
  std::string cleanup(bool keep) const {
    const json preparation = load("preparation.json", false), ready = load("ready.json", true);
    if (!ready.is_null() && !preparation.is_null()) validate_install_preparation(preparation, ready);
    if (!ready.is_null()) cleanup_ready_install(manifest, ready, staging, destination, keep);
    else if (!preparation.is_null()) cleanup_prepared_install(manifest, preparation, staging, destination);
    finish();
    return !ready.is_null() ? "ready" : !preparation.is_null() ? "prepared" : "none";
  }
  void install(const fs::path& archive, const std::string& until) const {
    for (const fs::path& directory : {versions, staging.parent_path(), operation}) private_directory(directory);
    json preparation = make_install_preparation(manifest, reference, versions);
    atomic_write(operation / "preparation.json", preparation.dump());
    const ReservedTree tree(manifest, staging, {}, [&](const DirectoryIdentity& identity) {
      atomic_write(operation / "preparation.json",
                   (preparation = record_install_preparation(preparation, identity)).dump());
    });
    extract_snapshot(manifest, archive, staging, {}, &tree);
    if (until == "prepared") return;
    const json ready = make_install_ready(manifest, reference, versions, tree);
    validate_install_preparation(preparation, ready);
    atomic_write(operation / "ready.json", ready.dump());
    if (until == "ready") return;
    commit_private_path_new(staging, destination, {});
    sync_directory(versions);
    sync_directory(staging.parent_path());
    finish();
  }
};

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  durable_kill::from_environment();
  const std::string archive = argv[2], mode = argv[4];
  return program::reporting([&] {
    const Install install{SnapshotManifest::parse(parse_json(read_file(argv[1], 1 << 24), 1 << 24)), argv[3]};
    std::cout << install.cleanup(mode != "discard") << std::endl;
    if (archive != "cleanup" && !entry_present(install.destination)) install.install(archive, mode);
    if (archive != "cleanup" && mode.empty()) std::cout << "active" << std::endl;
    return 0;
  });
}
