#include "service/Signing.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <array>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "platform/files/AtomicFile.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

constexpr std::size_t kKeyBytes = 32;
constexpr std::string_view kPrefix = "/storage/";
constexpr std::string_view kExpires = "expires=";
constexpr std::string_view kSignature = "&signature=";

std::string_view nameOf(StorageKind kind) {
  switch (kind) {
    case StorageKind::tree:
      return "tree";
    case StorageKind::staged:
      return "staged";
    case StorageKind::part:
      return "part";
  }
  return "";
}

std::optional<StorageKind> kindNamed(std::string_view name) {
  for (const StorageKind kind : {StorageKind::tree, StorageKind::staged, StorageKind::part}) {
    if (name == nameOf(kind)) return kind;
  }
  return std::nullopt;
}

bool isUnreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::int64_t> parseNumber(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// A path of the tree begins with a slash, which is the one after "tree" in the target.
std::string targetPath(const StorageGrant& grant) {
  const std::string_view separator = grant.kind == StorageKind::tree ? "" : "/";
  return fmt::format("{}{}{}{}", kPrefix, nameOf(grant.kind), separator,
                     percentEncodePath(grant.key));
}

StorageGrant parseTargetPath(std::string_view path) {
  if (!path.starts_with(kPrefix)) throw notFound();
  const std::string_view rest = path.substr(kPrefix.size());
  const std::size_t slash = rest.find('/');
  const auto kind = kindNamed(rest.substr(0, slash));
  if (!kind || slash == std::string_view::npos) throw notFound();
  StorageGrant grant;
  grant.kind = *kind;
  grant.key = percentDecode(rest.substr(*kind == StorageKind::tree ? slash : slash + 1));
  return grant;
}

}  // namespace

Signer::Signer(platform::Secret key, std::chrono::seconds lifetime)
    : key_(std::move(key)), lifetime_(lifetime) {}

std::string Signer::signature(const StorageGrant& grant, std::int64_t expires) const {
  // No field but the last can hold a line break, so two different grants never give the same text.
  const std::string text =
      fmt::format("{}\n{}\n{}\n{}", grant.method, nameOf(grant.kind), expires, grant.key);
  return keyedHash(key_, text);
}

std::string Signer::sign(const StorageGrant& grant,
                         std::chrono::system_clock::time_point now) const {
  const std::int64_t expires =
      std::chrono::floor<std::chrono::seconds>(now + lifetime_).time_since_epoch().count();
  return fmt::format("{}?{}{}{}{}", targetPath(grant), kExpires, expires, kSignature,
                     signature(grant, expires));
}

StorageGrant Signer::verify(std::string_view method, std::string_view target,
                            std::chrono::system_clock::time_point now) const {
  const std::size_t question = target.find('?');
  StorageGrant grant = parseTargetPath(target.substr(0, question));
  grant.method = method == "HEAD" ? "GET" : std::string(method);
  const ServiceError refused(403, "the signature is missing, wrong or expired");
  if (question == std::string_view::npos) throw refused;
  std::string_view query = target.substr(question + 1);
  const std::size_t split = query.find(kSignature);
  if (!query.starts_with(kExpires) || split == std::string_view::npos) throw refused;
  const auto expires = parseNumber(query.substr(kExpires.size(), split - kExpires.size()));
  if (!expires) throw refused;
  if (!equalInConstantTime(signature(grant, *expires), query.substr(split + kSignature.size())))
    throw refused;
  const auto current = std::chrono::floor<std::chrono::seconds>(now).time_since_epoch().count();
  if (current >= *expires) throw refused;
  return grant;
}

std::string keyedHash(const platform::Secret& key, std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  const std::string& bytes = key.reveal();
  const auto* data = reinterpret_cast<const unsigned char*>(text.data());
  if (HMAC(EVP_sha256(), bytes.data(), static_cast<int>(bytes.size()), data, text.size(),
           digest.data(), &length) == nullptr) {
    throw std::runtime_error("HMAC-SHA256 failed");
  }
  std::string hex;
  hex.reserve(std::size_t{2} * length);
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (unsigned i = 0; i < length; ++i) {
    hex += kDigits[digest[i] >> 4U];
    hex += kDigits[digest[i] & 15U];
  }
  return hex;
}

bool equalInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

platform::Secret loadSigningKey(const std::filesystem::path& file) {
  if (!std::filesystem::exists(file)) {
    std::array<unsigned char, kKeyBytes> random{};
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
      throw std::runtime_error("no random bytes for the signing key");
    }
    const std::string_view key(reinterpret_cast<const char*>(random.data()), random.size());
    platform::replaceFile(file, key, platform::Durability::durable);
  }
  platform::Secret key(platform::readFile(file, kKeyBytes));
  if (key.reveal().size() != kKeyBytes) {
    throw std::runtime_error("signing key '" + file.string() +
                             "' is damaged; remove it to get a new one");
  }
  return key;
}

std::string percentEncodePath(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (isUnreserved(c) || c == '/') {
      out += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    out += '%';
    out += kDigits[byte >> 4U];
    out += kDigits[byte & 15U];
  }
  return out;
}

std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    const int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
    if (high < 0 || low < 0) throw badRequest("the percent-encoding is malformed");
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

}  // namespace kestrune::service
