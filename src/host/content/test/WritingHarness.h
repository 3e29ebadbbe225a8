// Files that are opened for writing: what tests of writing and of snapshots begin with.
#pragma once

#include <stdexcept>
#include <string>

#include "host/content/test/ContentHarness.h"

namespace kestrune::host::test {

class WritingHarness : public ContentHarness {
 public:
  FileObjectPtr stored(const std::string& contents) {
    store().put(contents, "1");
    auto object = fresh();
    object->opened(true);
    return object;
  }
  FileObjectPtr large() { return stored(pattern(40 * kMiB, 1)); }
  FileObjectPtr madeHere() {
    auto object = fresh();
    object->opened(true);
    return object;
  }
  static FileObject::Snapshot snapshotOf(const FileObjectPtr& object) {
    auto answer = object->snapshot();
    if (!answer.ok()) throw std::runtime_error(answer.error()->localizedDescription());
    return answer.value();
  }
};

}  // namespace kestrune::host::test
