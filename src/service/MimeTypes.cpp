#include "service/MimeTypes.h"

#include "platform/files/Paths.h"
#include "platform/files/UTType.h"

namespace kestrune::service {
namespace {

/// Names are chosen by clients, so what is remembered of them is bounded. Longer "extensions" are
/// no extensions.
constexpr std::size_t kMaxKnown = 4096;
constexpr std::size_t kMaxExtensionBytes = 16;

const std::optional<std::string> kNone;

}  // namespace

const std::optional<std::string>& MimeTypes::typeOf(std::string_view name) {
  const std::string extension = platform::pathExtension(name);
  if (extension.empty() || extension.size() > kMaxExtensionBytes) return kNone;
  const platform::MutexLock lock(mutex_);
  const auto found = known_.find(extension);
  if (found != known_.end()) return found->second;
  if (known_.size() >= kMaxKnown) return kNone;
  const auto type = platform::UTType::typeForFilenameExtension(extension);
  auto& slot = known_[extension];
  if (type && type->identifier().find('/') != std::string::npos) slot = type->identifier();
  return slot;
}

}  // namespace kestrune::service
