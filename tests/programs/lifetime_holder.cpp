// Holds the lifetime lock of the installation whose bootstrap image is
// argv[1], as a running bootstrap does, until it is killed; it dies with the
// test that started it, so a failed test leaves no holder behind.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>

#include "client/app/install_guards.hpp"

int main(int argc, char** argv) {
  if (argc != 2 || ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return 2;
  const auto lifetime = zorvi::bootstrap_lifetime(argv[1]);
  for (;;) ::pause();
}
