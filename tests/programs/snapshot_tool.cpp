// A small command-line face of snapshot extraction and file reservation, run
// by tests inside private mount namespaces and by the memory benchmark.
//
//   snapshot_tool allocate PATH LENGTH WRITE
//   snapshot_tool reserve MANIFEST ROOT
//   snapshot_tool extract MANIFEST ARCHIVE STAGING [--reserve]
//   snapshot_tool verify MANIFEST ROOT
//
// Prints "ok" and facts on success, or "error CODE: MESSAGE" with status 1.

#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "client/domain/crypto.hpp"
#include "client/domain/error.hpp"
#include "client/domain/json.hpp"
#include "client/domain/manifest.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/allocated_file.hpp"
#include "client/platform/files.hpp"
#include "client/platform/reserved_tree.hpp"

namespace {

using namespace zorvi;

constexpr std::uint64_t manifest_limit = 64u << 20;

SnapshotManifest load_manifest(const std::string& path) {
  return SnapshotManifest::parse(parse_json(read_file(path, manifest_limit), manifest_limit));
}

int allocate(const std::vector<std::string>& args) {
  const std::uint64_t length = std::stoull(args.at(1));
  const std::uint64_t count = std::stoull(args.at(2));
  AllocatedFile file(args.at(0), length, ReservationObserver());
  std::cout << "preallocated=" << file.reservation().preallocated << " allocated=" << file.allocated_bytes() << "\n";
  file.write(std::string(count, 'x'));
  file.finish(false);
  return 0;
}

int reserve(const std::vector<std::string>& args) {
  const ReservedTree tree(load_manifest(args.at(0)), args.at(1), Progress(), RootObserver());
  std::cout << tree.summary().dump() << "\n";
  return 0;
}

int extract(const std::vector<std::string>& args) {
  const SnapshotManifest manifest = load_manifest(args.at(0));
  std::optional<ReservedTree> tree;
  if (args.size() > 3 && args[3] == "--reserve") tree.emplace(manifest, args.at(2), Progress(), RootObserver());
  extract_snapshot(manifest, args.at(1), args.at(2), Progress(), tree ? &*tree : nullptr);
  return 0;
}

int verify(const std::vector<std::string>& args) {
  verify_snapshot_tree(load_manifest(args.at(0)), args.at(1), Progress());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> all(argv + 1, argv + argc);
  if (all.empty()) {
    std::cerr << "usage: snapshot_tool allocate|reserve|extract|verify ARGS...\n";
    return 2;
  }
  const std::string command = all.front();
  const std::vector<std::string> args(all.begin() + 1, all.end());
  try {
    initialize_client_runtime();
    int status = 2;
    if (command == "allocate") status = allocate(args);
    if (command == "reserve") status = reserve(args);
    if (command == "extract") status = extract(args);
    if (command == "verify") status = verify(args);
    if (status == 0) std::cout << "ok\n";
    return status;
  } catch (const Error& error) {
    std::cout << "error " << error.code << ": " << error.what() << "\n";
    return 1;
  } catch (const std::exception& error) {
    std::cout << "failure: " << error.what() << "\n";
    return 3;
  }
}
