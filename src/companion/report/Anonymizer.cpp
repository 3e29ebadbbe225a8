#include "companion/report/Anonymizer.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <string_view>

#include "host/control/ControlRequest.h"
#include "platform/files/AtomicFile.h"
#include "platform/values/NSError.h"
#include "platform/values/UUID.h"

namespace kestrune {

namespace {

constexpr const char* kLeftOut = "(left out)";
constexpr std::size_t kHashBytes = 5;
constexpr std::size_t kShortest = 3;
/// Files of the system, the same everywhere.
constexpr std::array<std::string_view, 4> kOfTheSystem = {"/usr/bin/", "/proc/sys/", "/dev/fuse",
                                                          "/etc/machine-id"};

bool isOfTheSystem(std::string_view text) {
  return std::any_of(kOfTheSystem.begin(), kOfTheSystem.end(),
                     [text](std::string_view file) { return text.starts_with(file); });
}

// A quotation mark, and no apostrophe within a word.
bool beginsQuotation(const std::string& text, std::size_t at) {
  if (text[at] != '\'' && text[at] != '"') return false;
  return at == 0 || std::isalnum(static_cast<unsigned char>(text[at - 1])) == 0;
}

}  // namespace

Anonymizer Anonymizer::here() {
  try {
    return Anonymizer(platform::readFile("/etc/machine-id", 4096));
  } catch (const platform::NSError&) {
    return Anonymizer(platform::newUUIDString());
  }
}

void Anonymizer::hide(const std::string& text) {
  if (text.size() >= kShortest) hidden_.emplace_back(text, name(text));
}

std::string Anonymizer::name(const std::string& given) const {
  const std::string hashed = key_ + '\0' + given;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  EVP_Digest(hashed.data(), hashed.size(), digest.data(), &length, EVP_sha256(), nullptr);
  std::string text = "n-";
  for (std::size_t i = 0; i < kHashBytes; ++i) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned>(digest.at(i)));
    text += digits.data();
  }
  return text;
}

std::string Anonymizer::path(const std::string& given) const {
  std::string text;
  for (std::size_t at = 0; at < given.size();) {
    if (given[at] == '/') {
      text += given[at++];
      continue;
    }
    const std::size_t end = std::min(given.find('/', at), given.size());
    text += name(given.substr(at, end - at));
    at = end;
  }
  return text;
}

// Without quotations.
std::string Anonymizer::plainText(const std::string& given) const {
  for (std::size_t at = 0; at < given.size(); ++at) {
    if (given[at] != '/') continue;
    const std::size_t begin = given.find_last_of(" ('\"", at) + 1;  // 0 where there is none
    if (begin == at && isOfTheSystem(std::string_view(given).substr(at))) {
      at = std::min(given.find_first_of(" )'\"", at), given.size());
      continue;
    }
    return given.substr(0, begin) + kLeftOut;
  }
  return given;
}

std::string Anonymizer::text(const std::string& given) const {
  std::string text = given;
  for (const auto& [hidden, hash] : hidden_) {
    for (auto at = text.find(hidden); at != std::string::npos;
         at = text.find(hidden, at + hash.size()))
      text.replace(at, hidden.size(), hash);
  }
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (!beginsQuotation(text, at)) continue;
    const std::size_t end = text.rfind(text[at]);
    if (end == at) return plainText(text.substr(0, at)) + kLeftOut;
    const std::string inner = text.substr(at + 1, end - at - 1);
    if (isOfTheSystem(inner) && inner.find_first_of("'\" ") == std::string::npos) {
      at = end;
      continue;
    }
    return plainText(text.substr(0, at + 1)) + path(inner) + plainText(text.substr(end));
  }
  return plainText(text);
}

platform::Json Anonymizer::pending(const platform::Json& given) const {
  platform::Json told = given;
  for (platform::Json& change : told["changes"]) {
    change["path"] = path(host::pathFromJson(change.at("path")));
    if (change.contains("reason")) change["reason"] = text(change["reason"].get<std::string>());
  }
  return told;
}

}  // namespace kestrune
