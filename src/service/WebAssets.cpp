#include "service/WebAssets.h"

#include <fmt/format.h>
#include <openssl/sha.h>

#include <array>

namespace kestrune::service {
namespace {

constexpr std::string_view kPicture = "image/svg+xml";
constexpr std::size_t kVersionBytes = 8;

std::string versionOf(std::string_view contents) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
  SHA256(reinterpret_cast<const unsigned char*>(contents.data()), contents.size(), hash.data());
  std::string version;
  for (std::size_t i = 0; i < kVersionBytes; ++i) version += fmt::format("{:02x}", hash[i]);
  return version;
}

const std::array<WebAsset, 5>& assets() {
  static const std::array<WebAsset, 5> all{{
      {"page.css", "text/css; charset=utf-8", kPageStyle, versionOf(kPageStyle)},
      {"page.js", "text/javascript; charset=utf-8", kPageScript, versionOf(kPageScript)},
      {"icon.svg", kPicture, kIcon, versionOf(kIcon)},
      {"folder.svg", kPicture, kFolderIcon, versionOf(kFolderIcon)},
      {"file.svg", kPicture, kFileIcon, versionOf(kFileIcon)},
  }};
  return all;
}

}  // namespace

const WebAsset* webAsset(std::string_view name) {
  for (const WebAsset& asset : assets()) {
    if (asset.name == name) return &asset;
  }
  return nullptr;
}

std::string webAssetTarget(std::string_view name) {
  return fmt::format("/web/{}?{}", name, webAsset(name)->version);
}

}  // namespace kestrune::service
