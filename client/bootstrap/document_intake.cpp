#include "client/bootstrap/document_intake.hpp"

#include <SDL3/SDL.h>

#include <cstdlib>
#include <cstring>

#include "client/platform/process.hpp"

namespace zorvi {
namespace {

// The desktop entry of the installed helper starts it with the opened
// document's path in this variable.
constexpr const char* launch_document_variable = "ZORVI_LAUNCH_DOCUMENT";

#ifdef ZORVI_SHORTCUT_TEST_INTAKE
// Only in the test build of the helper: further documents, one path per
// line, each delivered as if the desktop had opened it while the helper runs.
constexpr const char* test_documents_variable = "ZORVI_SHORTCUT_TEST_DOCUMENTS";
constexpr std::size_t max_test_documents = 32;
constexpr std::size_t max_test_documents_bytes = 65536;
#endif

// One byte more than the longest path the helper accepts: enough for its
// own check to see that a longer one is too long.
constexpr std::size_t document_scan = 4097;

}  // namespace

bool DocumentIntake::deliver() {
  if (const char* value = std::getenv(launch_document_variable)) {
    documents_.emplace_back(value, ::strnlen(value, document_scan));
  }
  ::unsetenv(launch_document_variable);
#ifdef ZORVI_SHORTCUT_TEST_INTAKE
  if (const auto more = process_environment(test_documents_variable, max_test_documents_bytes)) {
    std::size_t start = 0;
    while (start < more->size() && documents_.size() <= max_test_documents) {
      const std::size_t end = std::min(more->find('\n', start), more->size());
      documents_.push_back(more->substr(start, end - start));
      start = end + 1;
    }
  }
  ::unsetenv(test_documents_variable);
#endif

  // The texts are final now; the events point into them.
  for (const std::string& document : documents_) {
    SDL_Event event;
    SDL_zero(event);
    event.type = SDL_EVENT_DROP_FILE;
    event.drop.timestamp = SDL_GetTicksNS();
    event.drop.data = document.c_str();
    if (!SDL_PushEvent(&event)) return false;
  }
  return true;
}

}  // namespace zorvi
