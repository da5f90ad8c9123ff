// A small command-line face of snapshot extraction and file reservation, run
// by tests inside private mount namespaces and by the memory benchmark.
//
//   snapshot_tool allocate PATH LENGTH WRITE
//   snapshot_tool reserve MANIFEST ROOT
//   snapshot_tool extract MANIFEST ARCHIVE STAGING [--reserve]
//
// Prints "ok" and facts on success, or "error CODE: MESSAGE" with status 1; an unknown
// command ends with status 2.
#include <optional>

#include "client/domain/crypto.hpp"
#include "client/domain/snapshot.hpp"
#include "client/platform/allocated_file.hpp"
#include "client/platform/files.hpp"
#include "client/platform/reserved_tree.hpp"
#include "tests/programs/program.hpp"

using namespace zorvi;

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + std::min(argc, 2), argv + argc);
  const std::string command = argc > 1 ? argv[1] : "";
  const auto manifest = [&] {
    constexpr std::uint64_t limit = 64u << 20;
    return SnapshotManifest::parse(parse_json(read_file(args.at(0), limit), limit));
  };
  return program::reporting(std::cout, "error ", [&] {
    initialize_client_runtime();
    if (command == "allocate") {
      AllocatedFile file(args.at(0), std::stoull(args.at(1)), ReservationObserver());
      std::cout << "preallocated=" << file.reservation().preallocated << " allocated=" << file.allocated_bytes()
                << "\n";
      file.write(std::string(std::stoull(args.at(2)), 'x'));
      file.finish(false);
    } else if (command == "reserve") {
      std::cout << ReservedTree(manifest(), args.at(1), Progress(), RootObserver()).summary().dump() << "\n";
    } else if (command == "extract") {
      const SnapshotManifest parsed = manifest();
      std::optional<ReservedTree> tree;
      if (args.size() > 3 && args[3] == "--reserve") tree.emplace(parsed, args.at(2), Progress(), RootObserver());
      extract_snapshot(parsed, args.at(1), args.at(2), Progress(), tree ? &*tree : nullptr);
    } else {
      return 2;
    }
    std::cout << "ok\n";
    return 0;
  });
}
