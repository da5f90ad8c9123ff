// Whatever the strict reader accepts has a canonical form that reads back as
// the same value and is its own canonical form. Strings with a control byte
// are copied raw into that form, which JSON cannot read back; those values
// stop after the first step.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "client/domain/error.hpp"
#include "client/domain/json.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zorvi::json value;
  try {
    value = zorvi::parse_json(std::string_view(reinterpret_cast<const char*>(data), size), size);
  } catch (const zorvi::Error&) {
    return 0;
  }
  const std::string canonical = zorvi::canonical_json(value);
  for (const char byte : canonical) {
    if (static_cast<unsigned char>(byte) < 0x20) return 0;
  }
  const zorvi::json again = zorvi::parse_json(canonical, canonical.size());
  if (again != value || zorvi::canonical_json(again) != canonical) std::abort();
  return 0;
}
