// Stands in for zorvi-bootstrap in tests of the launch-document helper. It
// records how it was started, optionally holds until told to go, and exits
// with the status it was asked for:
//   ZORVI_STAND_IN_RECORDS  folder for one record per run, <pid>.json
//   ZORVI_STAND_IN_HOLD     a path; the run goes on while it exists
//   ZORVI_STAND_IN_STATUS   the exit status, 0 when absent

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

extern char** environ;

namespace {

constexpr auto hold_limit = std::chrono::seconds(120);

nlohmann::json record(int argc, char** argv) {
  nlohmann::json arguments = nlohmann::json::array();
  for (int i = 1; i < argc; ++i) arguments.push_back(argv[i]);
  nlohmann::json environment = nlohmann::json::object();
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos) environment[text.substr(0, equals)] = text.substr(equals + 1);
  }
  return {{"arguments", arguments},
          {"directory", std::filesystem::current_path().native()},
          {"environment", environment},
          {"pid", ::getpid()},
          {"group", ::getpgrp()}};
}

// Written beside and renamed into place, so a reader never sees half a record.
void write_record(const std::filesystem::path& folder, const nlohmann::json& value) {
  const std::filesystem::path name = std::to_string(::getpid()) + ".json";
  const std::filesystem::path partial = folder / (name.native() + ".tmp");
  std::ofstream(partial) << value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::filesystem::rename(partial, folder / name);
}

}  // namespace

int main(int argc, char** argv) {
  if (const char* folder = std::getenv("ZORVI_STAND_IN_RECORDS")) write_record(folder, record(argc, argv));
  if (const char* hold = std::getenv("ZORVI_STAND_IN_HOLD")) {
    const auto end = std::chrono::steady_clock::now() + hold_limit;
    while (std::filesystem::exists(hold) && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  const char* status = std::getenv("ZORVI_STAND_IN_STATUS");
  return status != nullptr ? std::atoi(status) : 0;
}
