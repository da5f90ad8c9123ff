// A command-line TUF client over the library's TufClient, for outside
// conformance suites:
//
//   zorvi-tuf-client --metadata-dir D init ROOT_FILE
//   zorvi-tuf-client --metadata-dir D --metadata-url URL refresh
//   zorvi-tuf-client --metadata-dir D --metadata-url URL --target-name P [--target-name P ...]
//                    --target-base-url URL --target-dir O download
//
// Exit status 0 on success, 1 on any failure with one "zorvi: " line.

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "client/domain/error.hpp"
#include "client/platform/files.hpp"
#include "client/platform/posix_files.hpp"
#include "client/tuf/tuf.hpp"
#include "tools/loopback_http_transport.hpp"

namespace zorvi {
namespace {

constexpr std::size_t max_argument = 4096;
constexpr std::size_t max_targets = 1024;

// The bounds of python-tuf's own client, so that suites written for it see
// the same limits.
constexpr TufLimits limits{512000, 16384, 5000000, 256, 32};

struct Options {
  std::string command;
  std::filesystem::path metadata_dir;
  std::string metadata_url;
  std::string root_file;
  std::vector<std::string> target_names;
  std::string target_base_url;
  std::filesystem::path target_dir;
};

[[noreturn]] void usage() { throw Error("usage", "Usage: zorvi-tuf-client --metadata-dir D COMMAND"); }

Options parse(const std::vector<std::string_view>& args) {
  Options options;
  for (std::size_t index = 0; index < args.size(); ++index) {
    const std::string_view word = args[index];
    require(word.size() <= max_argument, "usage", "Argument exceeds its bound");
    auto value = [&]() -> std::string {
      if (++index >= args.size()) usage();
      require(args[index].size() <= max_argument, "usage", "Argument exceeds its bound");
      return std::string(args[index]);
    };
    if (word == "--metadata-dir") options.metadata_dir = value();
    else if (word == "--metadata-url") options.metadata_url = value();
    else if (word == "--target-base-url") options.target_base_url = value();
    else if (word == "--target-dir") options.target_dir = value();
    else if (word == "--target-name") options.target_names.push_back(value());
    else if (word.starts_with("--"))
      usage();  // NOLINT(bugprone-branch-clone): an unknown option is refused before it can pass as a word
    else if (options.command.empty()) options.command = word;
    else if (options.command == "init" && options.root_file.empty()) options.root_file = word;
    else usage();
  }
  require(options.target_names.size() <= max_targets, "usage", "Too many target names");
  if (options.metadata_dir.empty()) usage();
  const bool init = options.command == "init", refresh = options.command == "refresh",
             download = options.command == "download";
  if (!(init || refresh || download) || init != !options.root_file.empty()) usage();
  if (!init && options.metadata_url.empty()) usage();
  if (download && (options.target_names.empty() || options.target_base_url.empty() || options.target_dir.empty()))
    usage();
  return options;
}

std::chrono::system_clock::time_point now() { return std::chrono::system_clock::now(); }

// Directories a failed download made for a nested target path go again, so
// that only finished targets stay in the target folder.
void remove_made_directories(const std::vector<std::filesystem::path>& made) {
  std::error_code ignored;
  for (auto it = made.rbegin(); it != made.rend(); ++it) std::filesystem::remove(*it, ignored);
}

void download_target(TufClient& client, const std::filesystem::path& target_dir, const std::string& name) {
  std::vector<std::filesystem::path> made;
  for (auto parent = (target_dir / name).parent_path(); parent != target_dir && !parent.empty();
       parent = parent.parent_path()) {
    if (!std::filesystem::exists(parent)) made.insert(made.begin(), parent);
    if (parent == parent.parent_path()) break;
  }
  try {
    client.download(name, target_dir, {}, {}, TufDownloadOptions{});
  } catch (...) {
    remove_made_directories(made);
    throw;
  }
}

void run(const Options& options) {
  const auto metadata_dir = std::filesystem::absolute(options.metadata_dir);
  private_directory(metadata_dir);
  if (options.command == "init") {
    TufClient::initialize(metadata_dir, read_file(options.root_file, limits.root_limit));
    return;
  }
  LoopbackHttpTransport metadata(options.metadata_url);
  if (options.command == "refresh") {
    TufClient(metadata_dir, metadata, metadata, limits, now).refresh();
    return;
  }
  LoopbackHttpTransport targets(options.target_base_url);
  TufClient client(metadata_dir, metadata, targets, limits, now);
  client.refresh();
  const auto target_dir = std::filesystem::absolute(options.target_dir);
  std::filesystem::create_directories(target_dir);
  for (const auto& name : options.target_names) download_target(client, target_dir, name);
}

}  // namespace
}  // namespace zorvi

int main(int argc, char** argv) {
  try {
    const std::vector<std::string_view> args(argv + 1, argv + argc);
    zorvi::run(zorvi::parse(args));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zorvi: %s\n", error.what());
    return 1;
  }
}
