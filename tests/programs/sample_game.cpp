// A stand-in game: writes its SDK session record "session.json" in its
// working directory under its own pid through "starting", "ready" and
// "clean_exit", each one an atomic replacement. ZORVI_SAMPLE_GAME_SESSION
// sets the session id ("session"); the nonce, game and build are "nonce",
// "sample-game" and "1.0.0". It leaves one breadcrumb and one log attachment
// and exits with 0.

#include "client/platform/files.hpp"
#include "tests/programs/program.hpp"

int main() {
  const char* session = std::getenv("ZORVI_SAMPLE_GAME_SESSION");
  zorvi::json record = {{"schema_version", 1},
                        {"session_id", session != nullptr ? session : "session"},
                        {"nonce", "nonce"},
                        {"game_id", "sample-game"},
                        {"build_id", "1.0.0"},
                        {"pid", ::getpid()},
                        {"breadcrumbs", {{{"category", "sample"}, {"message", "started"}}}},
                        {"attachments", {{{"kind", "log"}, {"path", "logs/game.log"}}}}};
  int sequence = 0;
  for (const std::string state : {"starting", "ready", "clean_exit"}) {
    record.update({{"sequence", ++sequence}, {"state", state}, {"ready_seen", state != "starting"}});
    if (state == "clean_exit") record["exit_code"] = 0;
    zorvi::atomic_write("session.json", record.dump());
  }
  return 0;
}
