#include "host/basics/ItemName.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune::host {
namespace {

using namespace std::string_literals;

TEST(ItemNameTest, OrdinaryNamesAreFileNames) {
  for (const std::string& name :
       {"a"s, "a b"s, "..."s, ".hidden"s, "-rf"s, "new\nline"s, "\x1b[31m"s, "\xE2\x80\xAEtxt"s,
        "\xFF\xFE"s, "CON"s, "C:\\x"s, std::string(255, 'x')}) {
    EXPECT_EQ(whyNotAFileName(name), nullptr) << name;
  }
}

TEST(ItemNameTest, WhatTheKernelCannotShowIsRefused) {
  for (const std::string& name :
       {""s, "."s, ".."s, "/"s, "a/b"s, "../../etc/passwd"s, "/etc"s, "a/"s, "\0"s, "a\0b"s,
        std::string(256, 'x'), std::string(1U << 20U, 'x')}) {
    EXPECT_NE(whyNotAFileName(name), nullptr) << name.substr(0, 40);
  }
}

}  // namespace
}  // namespace kestrune::host
