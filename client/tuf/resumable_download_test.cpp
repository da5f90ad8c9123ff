#include <csignal>
#include <cstdlib>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/files_support.hpp"
#include "tests/support/https_server.hpp"
#include "tests/support/tuf_support.hpp"

namespace zorvi::testing {
namespace {

std::filesystem::path marker_in(const std::filesystem::path& folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    if (entry.path().string().ends_with(".resume.json")) return entry.path();
  return {};
}

std::uint64_t received(const std::filesystem::path& folder) {
  return json::parse(read_text(marker_in(folder))).at("received").get<std::uint64_t>();
}

Progress stop_at(std::uint64_t bytes) {
  return [bytes](std::uint64_t done, std::uint64_t) { return done < bytes; };
}

TEST(ResumableDownload, GoesOnFromTheLastCheckpointAndRestartsOnAWholeFileAnswer) {
  TufRepository repository;
  repository.run({"target", "a/big.bin", "10485760"});
  TufClient client = repository.client();
  std::uint64_t resumed = 0;
  const TufDownloadOptions options{"game", [&](const TargetStorageRequest& request) { resumed = request.received; }};
  const auto fetch = [&](const Progress& progress) {
    return outcome([&] { client.download("a/big.bin", repository.out, progress, {}, options); });
  };
  // A failure that is no crash writes a last checkpoint first.
  EXPECT_EQ(fetch(stop_at(9 << 20)), "cancelled: Transfer cancelled at a safe boundary");
  EXPECT_EQ(received(repository.out / "a"), 9u << 20);
  EXPECT_EQ(fetch({}), "ok");
  EXPECT_EQ(resumed, 9u << 20);
  std::filesystem::remove(repository.out / "a/big.bin");
  EXPECT_EQ(fetch(stop_at(1 << 20)), "cancelled: Transfer cancelled at a safe boundary");
  repository.targets.ignore_ranges = true;
  std::uint64_t after_restart = 1;
  EXPECT_EQ(fetch([&](std::uint64_t done, std::uint64_t) {
              if (done <= 65536) after_restart = received(repository.out / "a");
              return true;
            }),
            "ok");
  EXPECT_EQ(after_restart, 0u);  // the restart wrote a checkpoint of nothing at once
  EXPECT_EQ(read_text(repository.out / "a/big.bin"), read_text(repository.repo / "targets/a/big.bin"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(repository.out / "a"), {}), 1);
}

TEST(ResumableDownload, ChangedKeptBytesAreRefusedAndPreserved) {
  TufRepository repository({"targets=1"});
  repository.run({"target", "big.bin", "2097152"});
  TufClient client = repository.client();
  const auto fetch = [&] { client.download("big.bin", repository.out, stop_at(1 << 20), {}, {"game", {}}); };
  EXPECT_EQ(outcome(fetch), "cancelled: Transfer cancelled at a safe boundary");
  const std::filesystem::path partial = marker_in(repository.out).replace_extension().replace_extension();
  shell("printf X | dd of=" + partial.string() + " bs=1 seek=1000 conv=notrunc status=none");
  const std::string before = tree_state(repository.out);
  EXPECT_EQ(outcome(fetch), "download_resume_changed: Recorded partial bytes changed");
  EXPECT_EQ(tree_state(repository.out), before);
}

TEST(ResumableDownload, PlainZeroLengthAndFinishedTargets) {
  TufRepository repository({"targets=1"});
  repository.run({"target", "empty.bin", "0"});
  TufClient client = repository.client();
  std::string events;
  const TargetObserver observer = [&](std::string_view event, const json&, std::string_view) { events += std::string(event) + " "; };
  client.download("empty.bin", repository.out, {}, observer, {"game", {}});
  write_text(repository.out / "file0.bin", "wrong");
  client.download("file0.bin", repository.out, {}, observer, {});
  client.download("file0.bin", repository.out, {}, observer, {});
  EXPECT_EQ(events, "prepared complete prepared complete complete ");
  EXPECT_EQ(std::filesystem::file_size(repository.out / "empty.bin"), 0u);
  EXPECT_EQ(read_text(repository.out / "file0.bin"), read_text(repository.repo / "targets/file0.bin"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(repository.out), {}), 2);
}

TEST(ResumableDownload, Failures) {
  TufRepository repository({"targets=1"});
  TufClient client = repository.client();
  const auto get = [&](const std::string& scope, const Progress& progress = {}) {
    return outcome([&] { client.download("file0.bin", repository.out, progress, {}, {scope, {}}); });
  };
  const std::string original = read_text(repository.repo / "targets/file0.bin");
  const auto serve = [&](const std::string& content) { write_text(repository.repo / "targets/file0.bin", content); };
  const auto in_out = [&](const std::string& name, const std::string& text) { write_text(repository.out / name, text); };
  EXPECT_EQ(get(std::string(4097, 's')), "size_limit: Download resume scope exceeds its bounded contract");
  serve(original + "!");
  EXPECT_EQ(get("s"), "size_limit: Write exceeds the authenticated file length");
  serve(original.substr(1));
  EXPECT_EQ(get("s"), "length_mismatch: Downloaded target is shorter than its signed length");
  serve(std::string(64, 'x'));
  EXPECT_EQ(get(""), "hash_mismatch: Target hash does not match signed metadata");
  EXPECT_EQ(get("s"), "hash_mismatch: Target hash does not match signed metadata");
  EXPECT_TRUE(std::filesystem::is_empty(repository.out));  // bytes that cannot be right go, markers too
  serve(original);
  in_out("file0.bin.x.partial.resume.json", "{}");
  EXPECT_EQ(get("s"), "download_resume_state: Unknown resume filename was preserved");
  std::filesystem::rename(repository.out / "file0.bin.x.partial.resume.json",
                          repository.out / ("file0.bin." + std::string(32, 'a') + ".partial.resume.json"));
  EXPECT_EQ(get("s"), "download_resume_state: Unknown partial-download state was preserved; clear the disposable cache to retry");
  std::filesystem::remove(repository.out / ("file0.bin." + std::string(32, 'a') + ".partial.resume.json"));
  const auto meddle = [&](std::uint64_t done, std::uint64_t total) {
    if (done == total) in_out(marker_in(repository.out).filename(), "{}");
    return true;
  };
  EXPECT_EQ(get("m", meddle), "download_resume_changed: Resume marker changed before checkpoint");
  std::filesystem::remove_all(repository.out);

  json state = {{"schema_version", 1}, {"kind", "zorvi-target-resume"}, {"target", "a"},
                {"temporary", "a." + std::string(32, 'G') + ".partial"}, {"scope_sha256", std::string(64, '0')},
                {"authorization", {{"length", 1u}, {"hashes", {{"sha256", ""}}}}}, {"identity", {1u, 2u}},
                {"received", 2u}, {"prefix_sha256", std::string(64, '0')}};
  const auto validate = [&] { validate_target_resume_state(state, state.at("temporary").get<std::string>()); };
  EXPECT_EQ(outcome(validate), "download_resume_state: Invalid partial-download bounds");
  state["received"] = 1u;
  EXPECT_EQ(outcome(validate), "download_resume_state: Partial-download nonce differs from its path");

  // Markers of other scopes are counted; at 32 only a matching one lets a download go on.
  for (int scope = 0; scope < 32; ++scope) get(std::to_string(scope), stop_at(1));
  EXPECT_EQ(get("other"), "download_resume_capacity: Retained partial downloads reached their capacity");
  EXPECT_EQ(get("7"), "ok");
}

TEST(ResumableDownload, SurvivesKillsOverHttps) {
  TufRepository repository;
  repository.run({"target", "big.bin", "41943040"});
  const char* configured = std::getenv("ZORVI_TUF_CRASH_ROUNDS");
  const int rounds = configured != nullptr ? std::atoi(configured) : 3;
  std::mt19937 random(std::random_device{}());
  std::string lines;
  // The last round's server ignores ranges, so the resume restarts from byte 0.
  for (int round = 0; round <= rounds; ++round) {
    HttpsServer server(repository.repo, round == rounds ? "max_ranges 0;" : "");
    ProgramChild child("tuf_fetch", {repository.trust.string(), server.base_url(), server.ca_bundle().string(),
                                     repository.out.string(), "big.bin", "20971520"});
    if (round < rounds) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200 + random() % 1800));
      child.kill(SIGKILL);
    }
    child.wait();
    for (std::string line = child.read_line(); !line.empty(); line = child.read_line()) lines += line + "\n";
  }
  EXPECT_TRUE(lines.ends_with("complete\n")) << lines;
  EXPECT_NE(lines.find("resumed "), std::string::npos) << lines;
  EXPECT_EQ(read_text(repository.out / "big.bin"), read_text(repository.repo / "targets/big.bin"));
}

}  // namespace
}  // namespace zorvi::testing
