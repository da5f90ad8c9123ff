// Downloads one target with resumption over HTTPS, for tests that kill it:
//   tuf_fetch TRUST BASE_URL CA_BUNDLE DESTINATION TARGET BYTES_PER_SECOND [SCOPE]
// (an empty SCOPE downloads in one go, without resumption).
// Prints "resumed N" when it goes on from N kept bytes, then "complete" or "CODE: MESSAGE".
#include "client/tuf/tuf.hpp"
#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  if (argc != 7 && argc != 8) return 2;
  return program::reporting([&] {
    const std::string base = argv[2];
    zorvi::HttpsTransport metadata(base + "metadata/", argv[3], 0, nullptr);
    zorvi::HttpsTransport targets(base + "targets/", argv[3], std::stoull(argv[6]), nullptr);
    zorvi::TufClient client(argv[1], metadata, targets, {1 << 20, 1 << 16, 1 << 22, 8, 8}, {});
    const auto told = [](const zorvi::TargetStorageRequest& request) {
      if (request.resumed) std::cout << "resumed " << request.received << std::endl;
    };
    client.download(argv[5], argv[4], {}, {}, {argc == 8 ? argv[7] : "crash-test", told});
    std::cout << "complete" << std::endl;
    return 0;
  });
}
