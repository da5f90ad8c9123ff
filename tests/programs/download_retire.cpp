// Retires the finished downloads of one launcher release from a store, for
// tests that trace it:
//   download_retire STORE REFERENCE_JSON
// Prints "ok", or "CODE: MESSAGE" and exits 1.
#include "client/app/target_download.hpp"
#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  return program::reporting([&] {
    zorvi::target_download_receipts(argv[1]).retire(zorvi::parse_json(argv[2], 4096));
    std::cout << "ok" << std::endl;
    return 0;
  });
}
