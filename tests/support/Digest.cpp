#include "tests/support/Digest.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace kestrune::support {

namespace {
void check(int result) {
  if (result != 1) throw std::runtime_error("SHA-256 failed");
}
}  // namespace

struct Digest::Context {
  EVP_MD_CTX* raw = EVP_MD_CTX_new();
};

Digest::Digest() : context_(std::make_unique<Context>()) {
  check(EVP_DigestInit_ex(context_->raw, EVP_sha256(), nullptr));
}

Digest::~Digest() { EVP_MD_CTX_free(context_->raw); }

void Digest::add(std::string_view bytes) {
  check(EVP_DigestUpdate(context_->raw, bytes.data(), bytes.size()));
}

std::string Digest::finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  check(EVP_DigestFinal_ex(context_->raw, digest.data(), &size));
  std::string text;
  for (unsigned int i = 0; i < size; ++i) text += fmt::format("{:02x}", digest[i]);
  return text;
}

std::string sha256Hex(std::string_view bytes) {
  Digest digest;
  digest.add(bytes);
  return digest.finish();
}

}  // namespace kestrune::support
