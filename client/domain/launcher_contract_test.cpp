#include "client/domain/launcher_contract.hpp"

#include <functional>

#include <gtest/gtest.h>

#include "tests/support/snapshot_support.hpp"

namespace zorvi::testing {
namespace {

// A launcher release over a real packed tree whose inventory Python hashed.
json release() {
  static const json document = [] {
    TempDir dir;
    write_tree(dir / "t", {{"bin/zorvi", "cli", true}, {"bin/zorvi-gui", "gui", true}, {"libexec/crash", "c", true}});
    pack_tree(dir / "t", dir / "a.tar.zst");
    json d = python_manifest(dir / "t", dir / "a.tar.zst");
    d.update(launcher_release_fields("test-build",
                                     {{{"path", "libexec/crash"}, {"role", "crash-handler"}, {"lease_abi", 1}}}));
    d["executable"] = "bin/zorvi";
    d["application_schema"]["maximum"] = 9;
    return d;
  }();
  return document;
}

const std::string digest_a(64, 'a');

// Empty files keep the expanded length right.
void add_files(json& d, const std::string& stem, int count, bool executable) {
  for (int i = 0; i < count; ++i)
    d["files"].push_back(
        {{"path", stem + std::to_string(i)}, {"length", 0}, {"mode", executable ? 493 : 420}, {"sha256", digest_a}});
}
// Fills the helper list to its bound: the crash handler and 15 more.
void sixteen_helpers(json& d) {
  add_files(d, "h/", 15, true);
  for (int i = 0; i < 15; ++i)
    d["runtime_helpers"].push_back({{"path", "h/" + std::to_string(i)}, {"role", "maintenance"}, {"lease_abi", 1}});
}

TEST(LauncherManifest, EachRuleAndBound) {
  const std::string no = "launcher_incompatible: ", bad = "invalid_manifest: ";
  const std::vector<std::tuple<std::function<void(json&)>, std::string>> rows{
      {[](json& d) { sixteen_helpers(d), add_files(d, "s/", 4096 - 18, false); }, "ok"},
      {[](json& d) { d["schema_version"] = "1"; },
       "unsupported_schema: Unsupported launcher manifest; existing installation was preserved"},
      {[](json& d) { d["health_abi"] = 2; }, no + "This launcher needs another native bootstrap ABI"},
      {[](json& d) { d["bootstrap_abi"] = "1"; }, bad + "Launcher manifest has missing or malformed fields"},
      {[](json& d) { d["application_schema"]["minimum"] = 2; },
       no + "This launcher cannot preserve the current application data schema"},
      {[](json& d) { d["runtime_lease_abi"] = 1; }, no + "Unsupported launcher runtime contract"},
      {[](json& d) { d.erase("staging_abi"); }, no + "Launcher manifest lacks its runtime contract"},
      {[](json& d) { add_files(d, "s/", 4094, false); },
       "size_limit: Launcher payload exceeds bounded native package limits"},
      {[](json& d) { d["gui_executable"] = "bin/../bin/zorvi-gui"; },
       bad + "GUI launcher executable is missing or not executable"},
      {[](json& d) { d["gui_executable"] = "bin/zorvi"; }, bad + "GUI and CLI need separate native entry points"},
      {[](json& d) { sixteen_helpers(d), d["runtime_helpers"].push_back(d["runtime_helpers"][1]); },
       no + "Native helper ownership must be a bounded list"},
      {[](json& d) { d["runtime_helpers"][0]["note"] = 1; }, no + "Native helper ownership fields are invalid"},
      {[](json& d) { d["runtime_helpers"][0]["role"] = "updater"; },
       no + "Unsupported native helper ownership contract"},
      {[](json& d) { d["runtime_helpers"].push_back(d["runtime_helpers"][0]); },
       no + "Native helper is missing, repeated or overlaps a frontend"},
      {[](json& d) { d["runtime_helpers"] = json::array(); },
       no + "Every native helper needs declared lifetime ownership"},
  };
  for (const auto& [change, expected] : rows)
    EXPECT_EQ(outcome([&, d = release()]() mutable { change(d), LauncherManifest::parse(d); }), expected);
}

TEST(LauncherManifest, RealReleaseHealthMatchesOnlyItsExactDocument) {
  const LauncherManifest m = LauncherManifest::parse(release());
  EXPECT_EQ(m.helpers, (std::map<std::string, std::string>{{"libexec/crash", "crash-handler"}}));
  const std::string nonce(32, 'c'), sha(64, 'd');
  const json attempt = {{"nonce", nonce}, {"reference", {{"manifest_sha256", sha}, {"build_id", "test-build"}}}};
  const json cli = m.startup_health(attempt, 42, "cli", true);
  EXPECT_EQ(cli.dump(), R"({"application_schema":1,"build_id":"test-build","console_interrupt_abi":1,"health_abi":1,)"
                        R"("interface":"cli","manifest_sha256":")" +
                            sha + R"(","nonce":")" + nonce + R"(","pid":42,"schema_version":1,"state":"ready"})");
  EXPECT_TRUE(m.matches_startup_health(parse_json(cli.dump(), 4096), attempt, 42, "cli", true));
  EXPECT_FALSE(m.matches_startup_health(cli, attempt, 42, "cli", false));  // one field too many
  EXPECT_FALSE(m.matches_startup_health(cli, attempt, 43, "cli", true));
  EXPECT_FALSE(m.matches_startup_health(json::array(), attempt, 42, "cli", true));
  EXPECT_EQ(outcome([&] { m.startup_health(attempt, 0, "gui", false); }),
            "launcher_health: Launcher health needs its exact native process and interface");
  EXPECT_EQ(outcome([&] { m.startup_health({{"nonce", "x"}}, 42, "gui", false); }),
            "launcher_state: Launcher startup identity is invalid");
}

}  // namespace
}  // namespace zorvi::testing
