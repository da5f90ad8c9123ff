// A program outside the tree, built against an installed libzorvi-core.
#include <iostream>

#include "client/domain/crypto.hpp"
#include "client/domain/json.hpp"
#include "client/transport/https.hpp"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string text = zorvi::canonical_json(zorvi::parse_json(argv[1], 4096));
  // quote_url lives beside the libcurl transport, so the link needs the
  // library's private dependencies too.
  std::cout << text << ' ' << zorvi::digest(text, "sha256") << ' ' << zorvi::quote_url("a b", false) << '\n';
}
