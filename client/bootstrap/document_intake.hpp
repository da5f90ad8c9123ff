#pragma once

#include <string>
#include <vector>

namespace zorvi {

// Turns the launch documents this process was started for into SDL
// file-drop events, the form in which the desktop hands documents to the
// helper. Owns the texts the queued events point to, so it must outlive
// every event it queued.
class DocumentIntake {
 public:
  // Takes the documents out of the environment, so that no child inherits
  // them, and queues one drop event for each; false when SDL refused one.
  bool deliver();

 private:
  std::vector<std::string> documents_;
};

}  // namespace zorvi
