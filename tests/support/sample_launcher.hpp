#pragma once

#include "client/app/launcher.hpp"
#include "tests/support/tuf_support.hpp"

namespace zorvi::testing {

// A launcher release of the project's sample launcher: bin/zorvi and
// bin/zorvi-gui, its build-id file, and `padding` files of `padding_bytes`
// random bytes in all, packed by tar and zstd. Its maintenance helpers
// bin/zorvi-maintenance and bin/zorvi-maintenance-gui are copies of the
// built program `maintenance`; an empty name leaves them out.
struct SampleRelease {
  SampleRelease(const std::filesystem::path& folder, const std::string& build, std::size_t padding = 0,
                std::uint64_t padding_bytes = 0, const std::string& maintenance = "zorvi-maintenance");

  // Signs the manifest and archive into `repository` as its launcher release.
  void publish(const TufRepository& repository) const;

  std::string build;
  std::filesystem::path tree, archive;
  std::string manifest;  // the manifest's exact bytes
  json reference;
};

// A bootstrap release of the built zorvi-bootstrap (or of `image`, another
// built program, as bin/zorvi-bootstrap), with a copy of zorvi-shortcut in
// its app bundle as plain data (no platform but macOS declares that helper)
// and a file named after the build, packed by tar and zstd.
struct SampleBootstrapRelease {
  SampleBootstrapRelease(const std::filesystem::path& folder, const std::string& build,
                         const std::string& image = "zorvi-bootstrap");

  // Signs the manifest and archive into `repository` as its bootstrap release.
  void publish(const TufRepository& repository) const;

  std::string build;
  std::filesystem::path tree, archive;
  std::string manifest;  // the manifest's exact bytes
};

// A data folder with the real zorvi-bootstrap installed in it:
//   <dir>/Zorvi Data/native/bootstrap/bin/zorvi-bootstrap
// Every start logs to log() through the sample launcher.
struct BootstrapInstall {
  BootstrapInstall();

  // Seeds `release` as the first launcher (a candidate until it has started).
  void seed(const SampleRelease& release) const;

  // Runs the bootstrap with these arguments after "--data-dir ROOT", the
  // sample launcher's misbehaviour `mode` for a trial, and `extra` variables.
  CommandResult start(const std::vector<std::string>& arguments = {"--gui"}, const std::string& mode = "",
                      const std::map<std::string, std::string>& extra = {}) const;

  // Runs tests/programs/launcher_stage against `repository` with these
  // variables set first (the crash-test ones, say).
  CommandResult stage(const TufRepository& repository, const std::vector<std::string>& variables = {}) const;

  // The release `reference` names is on disk and its every file verifies.
  void expect_intact(const json& reference) const;

  // The launcher lines logged so far ("trial|start BUILD ARGS...").
  std::vector<std::string> starts() const;

  // active, rollback, candidate, failed_candidate: each a build id or "-".
  std::string slots() const;

  TempDir dir;
  std::filesystem::path root = std::filesystem::canonical(dir.path()) / "Zorvi Data";
  std::filesystem::path bootstrap = root / "native/bootstrap/bin/zorvi-bootstrap";
  std::filesystem::path log = dir / "launcher.log";
  LauncherStore store{root, true};
};

// A repository holding a bootstrap and a launcher release of one build id,
// and the package the real builder makes of it.
struct SamplePackage {
  explicit SamplePackage(const std::string& build);

  // tools/zorvi-package for `origin`, trusting the repository's server; on
  // success the seal it prints is kept.
  CommandResult build(const std::string& origin, const std::vector<std::string>& options = {});

  TufRepository repository;
  TempDir dir;
  std::filesystem::path package = dir / "package";
  std::string seal;
};

}  // namespace zorvi::testing
