#include "service/BearerToken.h"

#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <sys/stat.h>

#include <cctype>
#include <stdexcept>
#include <string>

#include "platform/files/AtomicFile.h"

namespace kestrune::service {
namespace {

constexpr std::string_view kScheme = "Bearer ";
constexpr std::string_view kWhiteSpace = " \t\r\n";
constexpr std::uint64_t kMaxTokenFileBytes = 64U << 10U;

std::array<unsigned char, 32> hashOf(std::string_view text) {
  static_assert(SHA256_DIGEST_LENGTH == 32);
  std::array<unsigned char, 32> hash{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), hash.data());
  return hash;
}

bool startsWithScheme(std::string_view value) {
  if (value.size() < kScheme.size()) return false;
  for (std::size_t i = 0; i < kScheme.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(value[i])) !=
        std::tolower(static_cast<unsigned char>(kScheme[i]))) {
      return false;
    }
  }
  return true;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kWhiteSpace);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kWhiteSpace) - begin + 1);
}

}  // namespace

BearerToken::BearerToken(const platform::Secret& token) : hash_(hashOf(token.reveal())) {}

bool BearerToken::accepts(std::string_view authorization) const {
  return startsWithScheme(authorization) && is(authorization.substr(kScheme.size()));
}

bool BearerToken::is(std::string_view text) const {
  const auto presented = hashOf(trimmed(text));
  return CRYPTO_memcmp(presented.data(), hash_.data(), hash_.size()) == 0;
}

platform::Secret readTokenFile(const std::filesystem::path& file, std::string& warning) {
  const std::string contents = platform::readFile(file, kMaxTokenFileBytes);
  platform::Secret token{std::string(trimmed(contents))};
  if (token.reveal().empty())
    throw std::runtime_error("token file '" + file.string() + "' is empty");
  for (const char c : token.reveal()) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7F) {
      throw std::runtime_error("token file '" + file.string() +
                               "' must hold one token and nothing else");
    }
  }
  struct stat status {};
  constexpr mode_t kOthers = 077;
  if (::stat(file.c_str(), &status) == 0 && (status.st_mode & kOthers) != 0) {
    warning =
        "token file '" + file.string() + "' can be read or changed by others; make its mode 0600";
  }
  return token;
}

}  // namespace kestrune::service
