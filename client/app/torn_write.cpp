#include "client/app/torn_write.hpp"

#include <algorithm>

#include "client/domain/json.hpp"

namespace zorvi {
namespace {

enum class Step : std::uint8_t { more, ended, wrong };

class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  // Consumes as much of `piece` as the text still holds.
  Step literal(std::string_view piece) {
    const std::size_t count = std::min(piece.size(), text_.size() - at_);
    if (text_.substr(at_, count) != piece.substr(0, count)) return Step::wrong;
    at_ += count;
    return count < piece.size() ? Step::ended : Step::more;
  }

  // Skips one JSON value of unknown content; `ended` when the text stops
  // inside it. Strings are followed through their escapes so that a brace or
  // comma inside one does not end the value.
  Step value() {
    int depth = 0;
    bool in_string = false;
    bool escaped = false;
    for (; at_ < text_.size(); ++at_) {
      const char c = text_[at_];
      if (in_string) {
        if (escaped) {
          escaped = false;
        } else if (c == '\\') {
          escaped = true;
        } else if (c == '"') {
          in_string = false;
          if (depth == 0) return ++at_, Step::more;
        }
      } else if (c == '"') {
        in_string = true;
      } else if (c == '{' || c == '[') {
        ++depth;
      } else if (c == '}' || c == ']' || c == ',') {
        if (depth == 0) return Step::more;  // the end of a scalar; the caller checks what follows
        if (c != ',' && --depth == 0) return ++at_, Step::more;
      }
    }
    return Step::ended;
  }

  bool at_end() const { return at_ == text_.size(); }

 private:
  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

TornWrite torn_write(std::string_view text, const std::vector<ExpectedMember>& members) {
  Cursor cursor(text);
  for (std::size_t index = 0; index < members.size(); ++index) {
    const ExpectedMember& member = members[index];
    const Step head = cursor.literal((index == 0 ? "{" : ",") + json(member.key).dump() + ":");
    if (head == Step::wrong) return index == 0 ? TornWrite::foreign : TornWrite::other;
    if (head == Step::ended) return TornWrite::prefix;
    const Step value = member.value ? cursor.literal(*member.value) : cursor.value();
    if (value == Step::wrong) return TornWrite::other;
    if (value == Step::ended) return TornWrite::prefix;
  }
  const Step close = cursor.literal("}");
  if (close == Step::wrong) return TornWrite::other;
  return close == Step::ended || cursor.at_end() ? TornWrite::prefix : TornWrite::other;
}

}  // namespace zorvi
