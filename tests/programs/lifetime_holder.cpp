// Holds the lifetime lock of the installation whose bootstrap image is
// argv[1], as a running bootstrap does, until it is killed.
#include <unistd.h>

#include "client/app/install_guards.hpp"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto lifetime = zorvi::bootstrap_lifetime(argv[1]);
  for (;;) ::pause();
}
