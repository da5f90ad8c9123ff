// Stands in for zorvi-bootstrap in tests of the launch-document helper. It
// records how it was started, optionally holds until told to go, and exits
// with the status it was asked for:
//   ZORVI_STAND_IN_RECORDS  folder for one record per run, <pid>.json
//   ZORVI_STAND_IN_HOLD     a path; the run goes on while it exists (2 minutes at most)
//   ZORVI_STAND_IN_STATUS   the exit status, 0 when absent

#include <cstring>

#include "tests/programs/program.hpp"

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  if (const char* folder = std::getenv("ZORVI_STAND_IN_RECORDS")) {
    zorvi::json environment = zorvi::json::object();
    for (char** entry = environ; *entry != nullptr; ++entry)
      environment[std::string(*entry, std::strchr(*entry, '='))] = std::strchr(*entry, '=') + 1;
    const zorvi::json record = {{"arguments", std::vector<std::string>(argv + 1, argv + argc)},
                                {"directory", fs::current_path().native()},
                                {"environment", environment},
                                {"pid", ::getpid()},
                                {"group", ::getpgrp()}};
    // Written beside and renamed into place, so a reader never sees half a record.
    const fs::path name = fs::path(folder) / std::to_string(::getpid());
    std::ofstream(name.native() + ".tmp") << record.dump(-1, ' ', false, zorvi::json::error_handler_t::replace);
    fs::rename(name.native() + ".tmp", name.native() + ".json");
  }
  if (const char* hold = std::getenv("ZORVI_STAND_IN_HOLD")) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (fs::exists(hold) && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const char* status = std::getenv("ZORVI_STAND_IN_STATUS");
  return status != nullptr ? std::atoi(status) : 0;
}
