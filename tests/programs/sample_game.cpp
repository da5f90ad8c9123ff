// A stand-in game: it writes its SDK session record under its own process id
// through "starting", "ready" and "clean_exit", each state one atomic
// replacement, as a game built on the SDK does.
//
//   ZORVI_SAMPLE_GAME_RECORD       where the record goes (required)
//   ZORVI_SAMPLE_GAME_SESSION      session id; _NONCE, _ID, _BUILD likewise
//   ZORVI_SAMPLE_GAME_BREADCRUMBS  how many breadcrumbs to leave (1)
//   ZORVI_SAMPLE_GAME_EXIT         the exit code, also recorded (0)
//   ZORVI_SAMPLE_GAME_LOG          appended a line "<pid> <session> <exit code>" when set

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "client/domain/json.hpp"
#include "client/platform/files.hpp"

namespace {

std::string setting(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

}  // namespace

int main() {
  const std::string record_path = setting("ZORVI_SAMPLE_GAME_RECORD", "");
  if (record_path.empty()) return 2;
  const int exit_code = std::stoi(setting("ZORVI_SAMPLE_GAME_EXIT", "0"));
  zorvi::json record = {{"schema_version", 1},
                        {"session_id", setting("ZORVI_SAMPLE_GAME_SESSION", "session")},
                        {"nonce", setting("ZORVI_SAMPLE_GAME_NONCE", "nonce")},
                        {"game_id", setting("ZORVI_SAMPLE_GAME_ID", "sample-game")},
                        {"build_id", setting("ZORVI_SAMPLE_GAME_BUILD", "1.0.0")},
                        {"pid", ::getpid()},
                        {"breadcrumbs", zorvi::json::array()},
                        {"attachments", {{{"kind", "log"}, {"path", "logs/game.log"}}}}};
  for (int i = std::stoi(setting("ZORVI_SAMPLE_GAME_BREADCRUMBS", "1")); i > 0; --i)
    record["breadcrumbs"].push_back({{"category", "sample"}, {"message", "step " + std::to_string(i)}});
  int sequence = 0;
  for (const std::string state : {"starting", "ready", "clean_exit"}) {
    record.update({{"sequence", ++sequence}, {"state", state}, {"ready_seen", state != "starting"}});
    if (state == "clean_exit") record["exit_code"] = exit_code;
    zorvi::atomic_write(record_path, record.dump());
  }
  if (const std::string log = setting("ZORVI_SAMPLE_GAME_LOG", ""); !log.empty())
    std::ofstream(log, std::ios::app) << ::getpid() << ' ' << record["session_id"].get<std::string>() << ' '
                                      << exit_code << '\n';
  return exit_code;
}
