#include "api/APIError.h"

#include <gtest/gtest.h>

namespace kestrune {
namespace {

using platform::NSCocoaError;

TEST(APIError, CasesHaveTheirNumbersAndDescriptions) {
  const struct {
    APIError error;
    APIError::Case which;
    std::int64_t code;
    const char* name;
    std::string description;
    int status;
  } cases[] = {
      {APIError::http(404, "gone"), APIError::Case::http, 0, "http", "HTTP 404: gone", 404},
      {APIError::http(500, ""), APIError::Case::http, 0, "http", "HTTP 500: ", 500},
      {APIError::decode(NSCocoaError(NSCocoaError::coderInvalidValue, "why")),
       APIError::Case::decode, 1, "decode", "Decode error: why", 0},
      {APIError::notConfigured(), APIError::Case::notConfigured, 2, "notConfigured",
       "API URL or auth token missing", 0},
  };
  for (const auto& [error, which, code, name, description, status] : cases) {
    EXPECT_EQ(error.which(), which);
    EXPECT_EQ(error.code(), code);
    EXPECT_STREQ(error.caseName(), name);
    EXPECT_EQ(error.localizedDescription(), description);
    EXPECT_EQ(error.status(), status);
  }
}

TEST(APIError, KeepsItsTypeWhenItIsHandedOn) {
  const platform::NSErrorPtr shared = APIError::http(404, "gone").share();
  ASSERT_NE(dynamic_cast<const APIError*>(shared.get()), nullptr);
  try {
    shared->raise();
  } catch (const APIError& error) {
    EXPECT_EQ(error.status(), 404);
  }
  EXPECT_THROW(shared->raise(), APIError);
}

TEST(APIError, AStatusCanBeToldWithoutKnowingTheType) {
  EXPECT_EQ(APIError::http(403, "x").userInfo().at(platform::kHTTPStatusCodeKey), "403");
  EXPECT_TRUE(APIError::notConfigured().userInfo().empty());
}

}  // namespace
}  // namespace kestrune
