#include "platform/values/UTF8.h"

#include <cstddef>

namespace kestrune::platform {

namespace {

struct Lead {
  std::size_t length = 0;  // of the whole sequence; 0 where no sequence begins so
  unsigned char least = 0x80;
  unsigned char most = 0xBF;  // bounds of the second byte
};

// RFC 3629, section 4.
Lead leadOf(unsigned char byte) {
  if (byte < 0x80) return {1};
  if (byte >= 0xC2 && byte <= 0xDF) return {2};
  if (byte == 0xE0) return {3, 0xA0, 0xBF};
  if (byte == 0xED) return {3, 0x80, 0x9F};
  if (byte >= 0xE1 && byte <= 0xEF) return {3};
  if (byte == 0xF0) return {4, 0x90, 0xBF};
  if (byte >= 0xF1 && byte <= 0xF3) return {4};
  if (byte == 0xF4) return {4, 0x80, 0x8F};
  return {};
}

}  // namespace

// Not simdjson's: that goes through an object which is destroyed when the process exits, and texts
// are still checked then, on threads that live as long as the process.
bool isValidUTF8(std::string_view bytes) {
  const auto at = [bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  for (std::size_t i = 0; i < bytes.size();) {
    const Lead lead = leadOf(at(i));
    if (lead.length == 0 || lead.length > bytes.size() - i) return false;
    if (lead.length > 1 && (at(i + 1) < lead.least || at(i + 1) > lead.most)) return false;
    for (std::size_t more = 2; more < lead.length; ++more) {
      if (at(i + more) < 0x80 || at(i + more) > 0xBF) return false;
    }
    i += lead.length;
  }
  return true;
}

}  // namespace kestrune::platform
