#include "name_rules.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

using namespace faultfs;

TEST(NameRules, LengthIsCountedInUtf16Units) {
  EXPECT_EQ(Utf16Length(""), 0u);
  EXPECT_EQ(Utf16Length("abc"), 3u);
  EXPECT_EQ(Utf16Length("\xc3\xa9"), 1u);          // e acute: two bytes, one unit
  EXPECT_EQ(Utf16Length("\xe2\x82\xac"), 1u);      // euro sign: three bytes, one unit
  EXPECT_EQ(Utf16Length("\xf0\x9f\x98\x80"), 2u);  // outside the BMP: a surrogate pair
}

TEST(NameRules, LengthLimitIs255Units) {
  EXPECT_EQ(CheckNewName(std::string(255, 'a'), false, ""), 0);
  EXPECT_EQ(CheckNewName(std::string(256, 'a'), false, ""), -ENAMETOOLONG);
  EXPECT_EQ(CheckNewName(std::string(1000, 'a'), true, ""), 0);
  // 200 two-byte characters are 400 bytes but only 200 units.
  std::string accented;
  for (int i = 0; i < 200; ++i) accented += "\xc3\xa9";
  EXPECT_EQ(CheckNewName(accented, false, ""), 0);
}

TEST(NameRules, ForbiddenCharactersAreRefusedUnlessAccepted) {
  for (char c : std::string("?|*:<>\"\\\x01\x1f")) {
    std::string name = std::string("a") + c + "b";
    EXPECT_EQ(CheckNewName(name, false, ""), -EINVAL) << name;
  }
  EXPECT_EQ(CheckNewName("::::", false, ":"), 0);
  EXPECT_EQ(CheckNewName("????", false, ":"), -EINVAL);
  EXPECT_EQ(CheckNewName("a?b|c*d:e<f>", false, "?|*:<>"), 0);
  EXPECT_EQ(CheckNewName("a\"b", false, "?|*:<>"), -EINVAL);
  EXPECT_EQ(CheckNewName("plain-name.txt 1", false, ""), 0);
}

TEST(NameRules, EntrySlotsGrowByOnePer15Units) {
  EXPECT_EQ(EntrySlots(""), 2u);
  EXPECT_EQ(EntrySlots("a"), 3u);
  EXPECT_EQ(EntrySlots(std::string(15, 'a')), 3u);
  EXPECT_EQ(EntrySlots(std::string(16, 'a')), 4u);
  EXPECT_EQ(EntrySlots(std::string(255, 'a')), 19u);
}
