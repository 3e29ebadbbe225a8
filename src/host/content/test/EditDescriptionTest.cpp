#include "host/content/EditDescription.h"

#include <gtest/gtest.h>

namespace kestrune::host {
namespace {

EditDescription sample() {
  EditDescription edit{"/a b/\n\xFF", "17-5", true, 9, 5, {}};
  edit.present.add({0, 3});
  edit.present.add({5, 9});
  return edit;
}

TEST(EditDescriptionTest, ComesBackAsItWas) {
  EXPECT_EQ(EditDescription::parse(sample().text()), sample());
  const EditDescription made{"/a", "", false, 0, 0, {}};
  EXPECT_EQ(EditDescription::parse(made.text()), made);
}

TEST(EditDescriptionTest, WhatWasCutOffOrIsOfAnotherFormIsNone) {
  const std::string text = sample().text();
  for (std::size_t length = 0; length < text.size(); ++length)
    EXPECT_FALSE(EditDescription::parse(text.substr(0, length))) << length;
  EXPECT_FALSE(EditDescription::parse(text + "x"));
  EXPECT_FALSE(EditDescription::parse("kestrune edit 2" + text.substr(15)));
  const auto with = [](const char* executable, const char* size) {
    std::string field = "kestrune edit 1";
    for (const char* next : {"/a", "", executable, size, "0", ""})
      field += '\0' + std::string(next);
    return field + '\0';
  };
  EXPECT_TRUE(EditDescription::parse(with("0", "5")));
  EXPECT_FALSE(EditDescription::parse(with("2", "5")));
  EXPECT_FALSE(EditDescription::parse(with("0", "-5")));
  EXPECT_FALSE(EditDescription::parse(with("0", "5x")));
  EXPECT_FALSE(EditDescription::parse(with("0", "99999999999999999999")));
}

}  // namespace
}  // namespace kestrune::host
