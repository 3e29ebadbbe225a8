// Files that are opened for reading: what tests of reading begin with.
#pragma once

#include <string>

#include "host/content/test/ContentHarness.h"

namespace kestrune::host::test {

class ReadingHarness : public ContentHarness {
 public:
  using ContentHarness::ContentHarness;

  FileObjectPtr small(const std::string& contents = "hello") {
    contents_ = contents;
    store().put(contents, "1");
    auto object = fresh();
    object->opened(false);
    return object;
  }
  /// A file that is fetched in part.
  FileObjectPtr large(std::int64_t mebibytes = 40) {
    return small(pattern(static_cast<std::size_t>(mebibytes * kMiB), 1));
  }
  /// Of what the store was given first.
  std::string expected(std::int64_t offset, std::size_t length) {
    return contents_.substr(static_cast<std::size_t>(offset), length);
  }

 private:
  std::string contents_;
};

}  // namespace kestrune::host::test
