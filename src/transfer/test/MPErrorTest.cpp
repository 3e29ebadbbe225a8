#include "transfer/MPError.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune {
namespace {

using platform::NSErrorPtr;

TEST(MPErrorTest, EachCaseHasItsDescriptionNumberAndName) {
  const struct {
    MPError error;
    std::string description;
    int code;
    std::string name;
  } cases[] = {
      {MPError::initFailed("no"), "multipart init: no", 0, "initFailed"},
      {MPError::initFailed(""), "multipart init: ", 0, "initFailed"},
      {MPError::partFailed(1, "missing ETag"), "part 1: missing ETag", 1, "partFailed"},
      {MPError::partFailed(1'234'567, "HTTP -1"), "part 1234567: HTTP -1", 1, "partFailed"},
      {MPError::completeFailed("HTTP 500: x"), "multipart complete: HTTP 500: x", 2,
       "completeFailed"},
      {MPError::readFailed("/a b.bin"), "file read: /a b.bin", 3, "readFailed"},
  };
  for (const auto& [error, description, code, name] : cases) {
    EXPECT_EQ(error.localizedDescription(), description);
    EXPECT_EQ(error.code(), code) << description;
    EXPECT_EQ(error.which(), static_cast<MPError::Case>(code)) << description;
    EXPECT_EQ(error.caseName(), name) << description;
    EXPECT_EQ(error.domain(), "MultipartUploader.MPError");
  }
}

TEST(MPErrorTest, KeepsItsTypeWhereItIsHandedOn) {
  const NSErrorPtr shared = MPError::partFailed(7, "HTTP 500").share();
  const auto* error = dynamic_cast<const MPError*>(shared.get());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->which(), MPError::Case::partFailed);
  EXPECT_THROW(shared->raise(), MPError);
}

}  // namespace
}  // namespace kestrune
