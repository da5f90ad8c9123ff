#include "client/domain/bootstrap_contract.hpp"

#include <functional>

#include <gtest/gtest.h>

#include "tests/support/test_support.hpp"

namespace zorvi::testing {
namespace {

// Names `path` in `key` and adds it as an empty file.
void add(json& d, const char* key, const std::string& path, bool executable) {
  d["files"].push_back(
      {{"path", path}, {"length", 0}, {"mode", executable ? 493 : 420}, {"sha256", std::string(64, 'a')}});
  if (*key) d[key] = path;
}
json release() {
  json d = json::parse(
      R"({"schema_version": 1, "kind": "zorvi-bootstrap-release", "bootstrap_abi": 1, "build_id": "b", "platform": "linux-x86_64",
    "archive": {"format": "tar.zst-v1", "target": "b.tar.zst", "length": 1, "sha256": ")" +
      std::string(64, 'a') + R"("}, "expanded_length": 0})");
  add(d, "executable", "bin/zorvi-bootstrap", true);
  add(d, "", "share/readme", false);
  return d;
}
void macos(json& d) {
  d["platform"] = "macos-aarch64";
  add(d, "shortcut_executable", "bin/ZorviShortcut.app/Contents/MacOS/zorvi-shortcut", true);
  add(d, "", "bin/ZorviShortcut.app/Contents/Info.plist", false);
}

TEST(BootstrapContract, EachRuleOfTheStableEntry) {
  const std::string windows = "bin/zorvi-bootstrap.exe";
  const std::vector<std::pair<std::function<void(json&)>, std::string>> rows{
      {[](json&) {}, "ok"},
      {macos, "ok"},
      {[&](json& d) {
         d["platform"] = "windows-x86_64", d["executable"] = d["files"][0]["path"] = windows;
         add(d, "gui_executable", "bin/zorvi-bootstrap-gui.exe", true);
       },
       "ok"},
      {[](json& d) { d["bootstrap_abi"] = 2; },
       "launcher_incompatible: Initial bootstrap schema or ABI is unsupported"},
      {[&](json& d) { d["executable"] = d["files"][0]["path"] = windows; },
       "launcher_incompatible: Initial bootstrap has a missing or incompatible stable entry point"},
      {[](json& d) { add(d, "gui_executable", "bin/zorvi-bootstrap-gui.exe", true); },
       "invalid_native_package: Initial bootstrap GUI entry must be its declared Windows windowed executable"},
      {[](json& d) { macos(d), d["files"].erase(3); },
       "invalid_native_package: macOS bootstrap launch documents need their declared native app helper and metadata"},
      {[](json& d) { d["files"][1]["mode"] = 493; },
       "invalid_native_package: Initial bootstrap snapshot contains an undeclared executable helper"},
  };
  for (const auto& [change, expected] : rows)
    EXPECT_EQ(
        outcome([&, d = release()]() mutable { change(d), validate_bootstrap_contract(SnapshotManifest::parse(d)); }),
        expected);
}

}  // namespace
}  // namespace zorvi::testing
