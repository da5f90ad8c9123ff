#include "client/app/launcher_attempts.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "client/platform/files.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/sample_launcher.hpp"

namespace zorvi {
namespace {

// While a real launcher process holds the attempt's lease, every refusal
// leaves the state byte for byte as it was. Killed, it leaves an attempt the
// next recovery ends as interrupted. (A confirmed start is the bootstrap's
// test: a real trial there ends in an active version.)
TEST(LauncherAttempts, AnAttemptEndsByItsLauncherDyingOrByProof) {
  testing::TempDir dir;
  const LauncherStore store(dir / "data", true);
  const testing::SampleRelease sample(dir.path(), "1.0.0", 0, 0, "");  // a real packed launcher tree
  const json reference = store.seed_initial(sample.manifest, sample.archive, {}), first = store.begin_candidate();
  const LauncherManifest release = store.manifest(reference);
  const std::int64_t pid = ::getpid();
  const auto ack = store.startup_ack_path(first), program = store.payload(reference) / "bin/zorvi";
  const auto acknowledge = [&](const json& a, const char* as) {
    atomic_create(store.startup_ack_path(a), lease_document(release, a, pid, as).dump());
  };
  const auto confirm = [&](const json& a) {
    store.confirm_candidate(a, release.startup_health(a, pid, "cli", true), pid, "cli");
  };
  testing::ProgramChild launcher("files_probe", {"hold_lock", store.startup_lease_path(first).native(), "shared"});
  ASSERT_EQ(launcher.read_line(), "locked");
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[&] { store.recover_attempt(); },
       "launcher_running: The unfinished launcher is still using its startup attempt; close it before restarting"},
      {[&] { confirm({{"nonce", std::string(32, 'f')}, {"reference", reference}}); },
       "launcher_state: Launcher startup ownership changed"},
      {[&] { store.confirm_candidate(first, release.startup_health(first, pid, "cli", false), pid, "cli"); },
       "launcher_health: Launcher health does not match its build, process, mode, interrupt contract and attempt"},
      {[&] { confirm(first); }, "launcher_lease: Launcher startup did not acknowledge native content ownership"},
      {[&] { acknowledge(first, "gui"), confirm(first); },
       "launcher_lease: Launcher lease acknowledgement does not match its build, process, mode and attempt"},
      {[&] { testing::write_text(ack, "{"), confirm(first); },  // not JSON: no match, and no other error
       "launcher_lease: Launcher lease acknowledgement does not match its build, process, mode and attempt"},
      {[&] {
         std::filesystem::remove(ack), acknowledge(first, "cli"), testing::write_text(program, "changed"),
             confirm(first);
       },
       "content_mismatch: Game content differs from the verified manifest: bin/zorvi"},
      {[&] { store.reject_candidate(first, std::string(81, 'a')); },
       "launcher_state: Launcher startup problem code is invalid"},
      {[&] { store.begin_candidate(); }, "busy: Another launcher startup needs recovery"},
      {[&] { store.version_guard(launcher_reference(std::string(64, 'f'), "2.0.0"), LockMode::exclusive); },
       "launcher_recovery_uncertain: This launcher version has an unknown contract; preserve its content"},
  };
  const std::string stored = testing::read_text(store.launcher_directory() / "installation.json");
  for (const auto& [call, expected] : rows) {
    EXPECT_EQ(testing::outcome(call), expected);
    EXPECT_EQ(testing::read_text(store.launcher_directory() / "installation.json"), stored);
  }
  launcher.kill(SIGKILL);
  EXPECT_EQ(launcher.wait(), 128 + SIGKILL);
  store.recover_attempt();
  json state = store.load();
  EXPECT_EQ(state["failed_candidate"], json({{"reference", reference}, {"problem", "startup_interrupted"}}));
  EXPECT_TRUE(store.begin_candidate().is_null() && store.load() == state);  // nothing written
}

}  // namespace
}  // namespace zorvi
