#include "platform/equals_ignore_case.h"

#include <gtest/gtest.h>

TEST(EqualsIgnoreCase, FoldsOnlyAsciiLetters) {
  EXPECT_TRUE(EqualsIgnoreCase("FragDisk", "fragdisk"));
  EXPECT_TRUE(EqualsIgnoreCase("FAT", "fat"));
  EXPECT_TRUE(EqualsIgnoreCase("", ""));
  EXPECT_TRUE(EqualsIgnoreCase("a1-_Z", "A1-_z"));
  // '@' and '[' sit just outside A-Z, '`' and '{' just outside a-z.
  EXPECT_FALSE(EqualsIgnoreCase("@", "`"));
  EXPECT_FALSE(EqualsIgnoreCase("[", "{"));
  // No locale folding beyond ASCII.
  EXPECT_FALSE(EqualsIgnoreCase("\xc3\x84", "\xc3\xa4"));
}

TEST(EqualsIgnoreCase, MatchesWholeStringsOnly) {
  EXPECT_FALSE(EqualsIgnoreCase("fat", "fa"));
  EXPECT_FALSE(EqualsIgnoreCase("fat", "fatx"));
  EXPECT_FALSE(EqualsIgnoreCase("truncate", "truncatebug31031"));
  EXPECT_FALSE(EqualsIgnoreCase("", "fat"));
}
