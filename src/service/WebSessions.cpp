#include "service/WebSessions.h"

#include <fmt/format.h>
#include <openssl/rand.h>

#include <array>
#include <charconv>
#include <stdexcept>
#include <system_error>

#include "service/Signing.h"

namespace kestrune::service {
namespace {

constexpr std::size_t kNamePartBytes = 8;

/// A line break ends each part, and no pre-signed URL's text begins like this.
platform::Secret keyOf(const platform::Secret& signingKey, const platform::Secret& token) {
  return platform::Secret(keyedHash(signingKey, "web sessions\n" + token.reveal()));
}

/// The time in "<time>.<random>"; 0 for another text.
std::int64_t endOf(std::string_view text) {
  std::int64_t seconds = 0;
  const char* dot = text.data() + std::min(text.find('.'), text.size());
  const auto [parsed, error] = std::from_chars(text.data(), dot, seconds);
  return error == std::errc() && parsed == dot ? seconds : 0;
}

}  // namespace

WebSessions::WebSessions(const platform::Secret& signingKey, const platform::Secret& token)
    : key_(keyOf(signingKey, token)),
      cookieName_("kestrune-" + keyedHash(key_, "cookie name").substr(0, kNamePartBytes)) {}

std::string WebSessions::signatureOf(std::string_view text) const {
  return keyedHash(key_, fmt::format("session\n{}", text));
}

std::string WebSessions::begin(std::int64_t now) const {
  std::array<unsigned char, 16> random{};
  if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1)
    throw std::runtime_error("no random bytes for a session");
  std::string text = fmt::format("{}.", now + kLifetime.count());
  for (const unsigned char byte : random) text += fmt::format("{:02x}", byte);
  const std::string signature = signatureOf(text);
  return text + '.' + signature;
}

bool WebSessions::accepts(std::string_view value, std::int64_t now) {
  const std::size_t dot = value.rfind('.');
  if (dot == std::string_view::npos) return false;
  const std::string_view text = value.substr(0, dot);
  if (!equalInConstantTime(signatureOf(text), value.substr(dot + 1))) return false;
  if (now >= endOf(text)) return false;
  const platform::MutexLock lock(mutex_);
  return !ended_.contains(std::string(text));
}

void WebSessions::end(std::string_view value, std::int64_t now) {
  if (!accepts(value, now)) return;
  const std::string text(value.substr(0, value.rfind('.')));
  const platform::MutexLock lock(mutex_);
  std::erase_if(ended_, [now](const auto& session) { return session.second <= now; });
  ended_[text] = endOf(text);
}

std::string_view WebSessions::find(std::string_view header, std::int64_t now) {
  while (!header.empty()) {
    const std::size_t end = std::min(header.find(';'), header.size());
    std::string_view pair = header.substr(0, end);
    header.remove_prefix(std::min(end + 1, header.size()));
    while (pair.starts_with(' ')) pair.remove_prefix(1);
    if (!pair.starts_with(cookieName_) || pair.substr(cookieName_.size(), 1) != "=") continue;
    const std::string_view value = pair.substr(cookieName_.size() + 1);
    if (accepts(value, now)) return value;
  }
  return {};
}

}  // namespace kestrune::service
