#include "service/RemotePath.h"

#include "platform/values/UTF8.h"

#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

constexpr std::size_t kMaxNameBytes = 255;
constexpr std::size_t kMaxPathBytes = 4095;

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

bool hasControl(std::string_view text) {
  for (const char c : text) {
    if (isControl(c)) return true;
  }
  return false;
}

void checkName(std::string_view name) {
  if (name.empty()) throw badRequest("the path has an empty name");
  if (name == "." || name == "..") throw badRequest("the path has a relative name");
  if (name.size() > kMaxNameBytes) throw badRequest("a name is too long");
}

}  // namespace

bool isAcceptableName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= kMaxNameBytes &&
         !hasControl(name) && platform::isValidUTF8(name);
}

RemotePath RemotePath::parse(std::string_view text) {
  if (text.empty() || text.front() != '/') throw badRequest("the path is not absolute");
  if (text.size() > kMaxPathBytes) throw badRequest("the path is too long");
  if (hasControl(text)) throw badRequest("the path has a control character");
  if (!platform::isValidUTF8(text)) throw badRequest("the path is not UTF-8");
  if (text.size() == 1) return RemotePath("/");
  std::size_t begin = 1;
  for (;;) {
    const std::size_t end = text.find('/', begin);
    checkName(text.substr(begin, end == std::string_view::npos ? end : end - begin));
    if (end == std::string_view::npos) break;
    begin = end + 1;
  }
  return RemotePath(std::string(text));
}

std::string RemotePath::name() const { return text_.substr(text_.rfind('/') + 1); }

RemotePath RemotePath::parent() const {
  const std::size_t slash = text_.rfind('/');
  return RemotePath(slash == 0 ? "/" : text_.substr(0, slash));
}

bool RemotePath::isBelow(const RemotePath& folder) const {
  if (folder.isRoot()) return !isRoot();
  return text_.size() > folder.text_.size() + 1 && text_.starts_with(folder.text_) &&
         text_[folder.text_.size()] == '/';
}

}  // namespace kestrune::service
