#include <gtest/gtest.h>

#include "client/app/target_download.hpp"
#include "client/domain/crypto.hpp"
#include "tests/support/files_support.hpp"
#include "tests/support/tuf_support.hpp"

namespace zorvi::testing {
namespace {

namespace fs = std::filesystem;

const std::string descriptor = "launcher-linux-x86_64.manifest.json", archive = "launcher.tar.zst",
                  owned = "launcher_download_uncertain: ";
const std::string hex32 = std::string(32, 'e');

// A launcher release manifest naming `bytes` as its archive.
std::string manifest_for(const std::string& bytes) {
  json manifest = R"({"schema_version": 1, "kind": "zorvi-launcher-release", "build_id": "1.0.0", "expanded_length": 1,
      "platform": "linux-x86_64", "executable": "bin/zorvi", "files": [{"path": "bin/zorvi", "length": 1, "mode": 493}],
      "archive": {"format": "tar.zst-v1", "target": "launcher.tar.zst"}})"_json;
  manifest["files"][0]["sha256"] = std::string(64, '0');
  manifest["archive"].update({{"length", bytes.size()}, {"sha256", digest(bytes, "sha256")}});
  return manifest.dump();
}

json described(const std::string& bytes) {
  return {{"length", bytes.size()},
          {"hashes", {{"sha256", digest(bytes, "sha256")}, {"sha512", digest(bytes, "sha512")}}}};
}

// A store with `download-intents` and `manifests`, and a published version.
struct Store {
  Store() {
    for (const char* name : {"download-intents", "manifests", "downloads"}) fs::create_directories(dir / name);
    repository.run("target " + archive + " 3145728");
    manifest = manifest_for(read_text(repository.repo / "targets" / archive));
    write_text(repository.dir / "manifest.json", manifest);
    repository.run("target " + descriptor + " @" + (repository.dir / "manifest.json").string());
    reference = {{"manifest_sha256", digest(manifest, "sha256")}, {"build_id", "1.0.0"}};
  }
  json owner(const std::string& target) const { return target == descriptor ? json() : reference; }
  // One download as a new process runs it: receipts read, then a new observer.
  // `killed`: the process dies right after the rename, before its receipt says so.
  std::string fetch(const std::string& target, std::uint64_t stop = UINT64_MAX, bool killed = false) {
    return outcome([&] {
      const TargetObserver receipts = target_download_receipts(dir.path()).observer(target, owner(target));
      const TargetObserver observer = [&](std::string_view event, const json& file, std::string_view name) {
        require(!killed || event != "complete", "killed", "killed");
        receipts(event, file, name);
      };
      repository.client().download(target, dir / "downloads",
                                   [stop](std::uint64_t done, std::uint64_t) { return done < stop; }, observer,
                                   {launcher_download_resume_scope(target, owner(target)), {}});
    });
  }
  json group(const std::string& target) const {
    for (const json& entry : target_download_receipts(dir.path()).downloads)
      if (entry.at("receipt").at("target") == target) return entry;
    return {};
  }
  // Its receipt's phase and how many resume files it keeps.
  json state(const std::string& target) const {
    return {group(target).at("phase"), group(target).at("resume_files").size()};
  }
  void observe(const std::string& target, const json& named, const std::string& bytes, const std::string& nonce,
               bool complete) {
    const TargetObserver observer = target_download_receipts(dir.path()).observer(target, named);
    observer("prepared", described(bytes), target + "." + nonce + ".partial");
    if (complete) observer("complete", described(bytes), "");
  }
  std::string scan() const {
    return outcome([&] { target_download_receipts(dir.path()); });
  }

  TufRepository repository;
  TempDir dir;
  std::string manifest;
  json reference;
};

TEST(TargetDownloads, ReceiptsFollowARealDownloadThroughCancelResumeAndRetirement) {
  Store store;
  EXPECT_EQ(store.fetch(descriptor, UINT64_MAX, true), "killed: killed");
  EXPECT_EQ(store.group(descriptor).at("phase"), "prepared");
  EXPECT_EQ(store.fetch(descriptor), "ok");
  EXPECT_EQ(store.fetch(archive, 1 << 20), "cancelled: Transfer cancelled at a safe boundary");
  EXPECT_EQ(json({store.state(descriptor), store.state(archive)}), json({{"complete", 0}, {"prepared", 1}}));
  // Only a durable manifest authorises removal.
  const TargetDownloads downloads = target_download_receipts(store.dir.path());
  const auto retire = [&] { downloads.retire(store.reference); };
  const auto refused = [&](const std::string& message) { expect_rows({{retire, owned + message}}, store.dir.path()); };
  refused("Download retirement requires durable matching native manifest authority");
  EXPECT_EQ(store.fetch(archive), "ok");
  EXPECT_EQ(store.state(archive), json({"complete", 0}));
  write_text(store.dir / "manifests" / (store.reference.at("manifest_sha256").get<std::string>() + ".json"),
             store.manifest);
  // Then only what it names, unchanged, and nothing while a receipt disagrees.
  const fs::path cache = store.dir / "downloads" / descriptor, file = store.dir / "downloads" / archive,
                 partial = store.dir / "downloads" /
                           (archive + "." + store.group(archive).at("nonce").get<std::string>() + ".partial");
  const std::string bytes = read_text(file), other(32, 'b');
  write_text(cache, store.manifest + " ");
  refused("Descriptor cache differs from its durable manifest");
  write_text(cache, store.manifest);
  write_text(partial, "");
  refused("A completed download temporary file reappeared");
  fs::remove(partial);
  write_text(file, bytes.substr(1));
  refused("Download ownership changed before retirement");
  write_text(file, bytes);
  store.observe(archive, store.reference, bytes.substr(1), other, true);
  refused("Download retirement lost its immutable authority");
  fs::remove(store.dir / "download-intents" / (other + ".json"));
  // A retirement has flushed every removal by the time it returns.
  const TracedRun traced =
      run_traced({binary_dir() / "download_retire", store.dir.path(), store.reference.dump()}, "unlink,unlinkat,fsync");
  EXPECT_EQ(traced.result.out, "ok\n");
  EXPECT_EQ(unflushed_name_changes(traced.calls, store.dir.path()), std::vector<std::string>{});
  retire();
  EXPECT_TRUE(fs::is_empty(store.dir / "download-intents"));
  EXPECT_TRUE(fs::is_empty(store.dir / "downloads"));
}

// What a kill in the middle of an atomic write leaves, a cut-off temporary,
// is explained; a name no write of ours makes keeps even a download away.
TEST(TargetDownloads, TornTemporariesAreExplainedAndForeignNamesPreserveTheStore) {
  Store store;
  EXPECT_EQ(store.fetch(archive, 1 << 20), "cancelled: Transfer cancelled at a safe boundary");
  const std::string nonce = store.group(archive).at("nonce");
  const fs::path intents = store.dir / "download-intents",
                 marker = store.dir / "downloads" / (archive + "." + nonce + ".partial.resume.json");
  for (const fs::path& written : {intents / (nonce + ".json"), marker}) {
    const std::string text = read_text(written);
    write_text(written.string() + "." + hex32 + ".tmp", text.substr(0, text.size() / 2));
  }
  EXPECT_EQ(json({store.group(archive).at("files").size(), store.group(archive).at("resume_files").size()}),
            json({2, 2}));
  const std::pair<fs::path, std::string> foreign[] = {
      {intents / (std::string(32, 'E') + ".json"), "Unknown download receipt names preserve the target store"},
      {marker.string() + ".bak", "Unknown resume metadata names were preserved"},
  };
  for (const auto& [path, message] : foreign) {
    write_text(path, "");
    const std::string state = tree_state(store.dir.path());
    EXPECT_EQ(store.fetch(archive), owned + message);
    EXPECT_EQ(tree_state(store.dir.path()), state);
    fs::remove(path);
  }
  EXPECT_EQ(store.fetch(archive), "ok");
}

TEST(TargetDownloads, Failures) {
  Store store;
  const std::string bytes = read_text(store.repository.repo / "targets" / archive), n1(32, '1'), n2(32, '2');
  json receipt = R"({"schema_version": 1, "kind": "zorvi-launcher-download", "phase": "prepared"})"_json;
  receipt.update({{"nonce", n1}, {"target", archive}, {"temporary", archive + "." + n1 + ".partial"}});
  receipt.update({{"authorization", described(bytes)}, {"reference", store.reference}});
  // `document` with the value at `path` replaced (or, as `op` says, added).
  const auto edited = [](const json& document, const std::string& path, const json& value, const char* op = "replace") {
    return document.patch(json::array({{{"op", op}, {"path", path}, {"value", value}}}));
  };
  const auto changed = [&](const std::string& path, const json& value, const char* op = "replace") {
    return [=] { validate_target_download_receipt(edited(receipt, path, value, op)); };
  };
  using Files = std::vector<json>;
  const auto group = [&](const std::string& nonce, const Files& files) {
    return [=] { parse_target_download_receipt_group(nonce, files); };
  };
  const auto text = [](const std::string& name, const std::string& content) {
    return json{{"name", name}, {"text", content}};
  };
  const auto file = [&](const std::string& name, const json& document) { return text(name, document.dump()); };
  const std::string own = n1 + ".json", own_tmp = own + "." + hex32 + ".tmp",
                    marker_name = archive + "." + n1 + ".partial.resume.json",
                    marker_tmp = marker_name + "." + hex32 + ".tmp";
  json marker = R"({"schema_version": 1, "kind": "zorvi-target-resume", "identity": [1, 2], "received": 0})"_json;
  marker.update({{"target", archive}, {"temporary", archive + "." + n1 + ".partial"}});
  marker.update({{"authorization", described(bytes)}, {"prefix_sha256", std::string(64, '0')}});
  marker["scope_sha256"] = digest(launcher_download_resume_scope(archive, store.reference), "sha256");
  // Cut-off writes: of this receipt, of one of another kind, of a checkpoint of another scope.
  const std::string whole = receipt.dump(), wrong = edited(receipt, "/kind", "zorvi-launcher-downloaX").dump(),
                    scope = edited(marker, "/scope_sha256", std::string(64, 'f')).dump();
  const auto resume = [&](const Files& files) {
    return [&, files] { parse_target_download_resume_files(receipt, files); };
  };
  const auto observe = [&](const std::string& nonce, const std::string& target = archive) {
    return [&, nonce, target] { store.observe(target, store.reference, bytes, nonce, false); };
  };
  const auto observed = [&](const char* event, const std::string& name) {
    return [&, event, name] {
      target_download_receipts(store.dir.path()).observer(archive, store.reference)(event, described(bytes), name);
    };
  };
  // Every refusal here is launcher_download_uncertain: the store is kept for a person to look at.
  std::vector<Row> rows = {
      {changed("/extra", 1, "add"), "Unknown target download receipt was preserved"},
      {changed("/temporary", archive + ".partial"), "Download temporary path differs from its owned nonce"},
      {changed("/authorization/hashes/md5", "00", "add"), "Download authorization exceeds its known bounds"},
      {changed("/authorization/hashes", {{"md5", "00"}}), "Unknown download hash contract was preserved"},
      {changed("/reference", nullptr), "Archive download has no known manifest identity"},
      {[&] {
         validate_target_download_receipt(
             edited(edited(receipt, "/target", descriptor), "/temporary", descriptor + "." + n1 + ".partial"));
       },
       "Descriptor download must not invent an installed reference"},
      {group(n1, {}), "Invalid frozen download receipt group"},
      {group(n1, Files(65, file(own, receipt))), "Invalid frozen download receipt group"},
      {group(n1, {file(n2 + ".json", receipt)}), "Unknown download receipt write was preserved"},
      {group(n2, {file(n2 + ".json", receipt)}), "Download receipt filename differs from its ownership identity"},
      {group(n1, {file(own, receipt), file(own_tmp, edited(receipt, "/authorization/length", 1))}),
       "Atomic receipt writes disagree about their owned download"},
      {resume({file(marker_name, marker), file(marker_tmp, edited(marker, "/identity/1", 3))}),
       "Resume checkpoints disagree about native file ownership"},
      {resume({file(archive + "." + n2 + ".partial.resume.json", marker)}), "Unowned resume evidence was preserved"},
      {resume({file(marker_name, edited(marker, "/scope_sha256", std::string(64, '0')))}),
       "Resume metadata differs from its owning receipt"},
      {resume({file(marker_name, edited(marker, "/kind", "x"))}), "Unknown resume metadata was preserved"},
      {group(n1, {file(own, receipt), text(own_tmp, wrong.substr(0, wrong.size() - 2))}),
       "Torn receipt write does not match its known download"},
      {group(n2, {text(n2 + ".json." + hex32 + ".tmp", whole.substr(0, whole.find("\"phase\"")))}),
       "Torn receipt write does not match its known download"},
      {group(n1, {file(own, receipt), text(own_tmp, "{\"kind\":")}), "Unrecognized receipt-write bytes were preserved"},
      {group(n1, {text(own, whole.substr(0, 50))}), "Unrecognized receipt-write bytes were preserved"},
      {resume({file(marker_name, marker), text(marker_tmp, scope.substr(0, scope.size() - 2))}),
       "Torn resume write shows a different or future contract"},
      {resume({text(marker_name, marker.dump().substr(0, 40))}), "Unknown resume-write bytes were preserved"},
      {observe("not-a-nonce"), "TUF download did not supply its exact owned staging name"},
      {observed("resumed", archive + "." + n1 + ".partial"),
       "Resume requires the unchanged prepared receipt and matching checkpoint"},
      {observed("complete", ""), "Download ownership changed before verification completed"},
  };
  for (Row& row : rows) row.expected = owned + row.expected;
  rows.push_back(
      {resume(Files(65, file(marker_name, marker))), "size_limit: Frozen resume evidence exceeds its bound"});
  expect_rows(rows, store.dir.path());
  observe(n1)();
  expect_rows({{observe(n1), owned + "New download nonce already belongs to retained metadata"}}, store.dir.path());
  observe(n2, archive + "." + n1 + ".partial")();
  EXPECT_EQ(store.scan(), owned + "Download target and partial ownership overlap; preserve them");
  fs::remove(store.dir / "download-intents" / (n2 + ".json"));
  for (int index = 1; index < 32; ++index)
    observe(hex(std::vector<std::uint8_t>(16, static_cast<std::uint8_t>(0x40 + index))))();
  expect_rows({{observe(n2), "launcher_storage_full: Retained download receipts reached their capacity"}},
              store.dir.path());
  for (int index = 32; index <= 64; ++index) write_text(store.dir / "download-intents" / std::to_string(index), "");
  EXPECT_EQ(store.scan(), "size_limit: Target download receipt count exceeds its scan bound");
}

}  // namespace
}  // namespace zorvi::testing
