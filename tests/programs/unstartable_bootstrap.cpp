// A bootstrap build that fails the start check an update asks of it.
#include <cstdlib>

int main() { return std::getenv("ZORVI_BOOTSTRAP_START_CHECK") != nullptr ? 1 : 0; }
