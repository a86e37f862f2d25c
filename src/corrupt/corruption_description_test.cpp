#include "corrupt/corruption_description.h"

#include <gtest/gtest.h>

namespace {

using Tokens = std::vector<std::string>;

// Parameters read from `description` when every default is `seed`.
CorruptionParameters Read(const std::string& description, uint64_t seed = 0xdead) {
  CorruptionParameters params{seed, seed, seed};
  ReadCorruptionParameters(SplitDescription(description), params);
  return params;
}

void ExpectParams(const CorruptionParameters& p, uint64_t start, uint64_t range, uint64_t value) {
  EXPECT_EQ(p.start, start);
  EXPECT_EQ(p.range, range);
  EXPECT_EQ(p.value, value);
}

}  // namespace

TEST(SplitDescription, SeparatesOnColonsAndDropsEmptyTokens) {
  EXPECT_EQ(SplitDescription("fat:start:200:range:10:value:0ffffff7"),
            (Tokens{"fat", "start", "200", "range", "10", "value", "0ffffff7"}));
  EXPECT_EQ(SplitDescription("fat::start:10"), (Tokens{"fat", "start", "10"}));
  EXPECT_EQ(SplitDescription(":::fat:::"), (Tokens{"fat"}));
  EXPECT_EQ(SplitDescription(""), Tokens{});
  EXPECT_EQ(SplitDescription(":"), Tokens{});
  // Only ":" separates: blanks, commas and "=" belong to the tokens.
  EXPECT_EQ(SplitDescription(" fat : start=1,2"), (Tokens{" fat ", " start=1,2"}));
}

TEST(ReadCorruptionParameters, ReadsHexadecimalKeywordValues) {
  ExpectParams(Read("fat:start:200:range:10:value:0ffffff7"), 0x200, 0x10, 0xffffff7);
  ExpectParams(Read("fat:start:0x1f:range:1F:value:0X10"), 31, 31, 16);
  ExpectParams(Read("bitmap:value:1"), 0xdead, 0xdead, 1);
}

TEST(ReadCorruptionParameters, KeywordsMatchInAnyCase) {
  ExpectParams(Read("FAT:START:10:Range:2:vAlUe:3"), 0x10, 2, 3);
}

TEST(ReadCorruptionParameters, ValueThatIsNotWhollyHexadecimalKeepsTheDefault) {
  ExpectParams(Read("fat:start:zz"), 0xdead, 0xdead, 0xdead);
  ExpectParams(Read("fat:start:12g"), 0xdead, 0xdead, 0xdead);
  ExpectParams(Read("fat:start:0x"), 0xdead, 0xdead, 0xdead);
  ExpectParams(Read("fat:start:1 2"), 0xdead, 0xdead, 0xdead);
  // strtoul skips leading blanks and accepts a sign, wrapping a "-".
  ExpectParams(Read("fat:start: 1f"), 0x1f, 0xdead, 0xdead);
  ExpectParams(Read("fat:start:-1"), UINT64_MAX, 0xdead, 0xdead);
  ExpectParams(Read("fat:start:+a"), 10, 0xdead, 0xdead);
}

TEST(ReadCorruptionParameters, KeywordWithoutValueEndsTheReading) {
  ExpectParams(Read("fat:range"), 0xdead, 0xdead, 0xdead);
  ExpectParams(Read("fat:start:5:range"), 5, 0xdead, 0xdead);
}

TEST(ReadCorruptionParameters, UnknownTokensAreSkippedOneByOne) {
  // "bogus" is skipped, then "start" is a keyword again.
  ExpectParams(Read("fat:bogus:start:7"), 7, 0xdead, 0xdead);
  // "x" is skipped, "1" is skipped, then "value" takes "2".
  ExpectParams(Read("fat:x:1:value:2"), 0xdead, 0xdead, 2);
  // A keyword's value is consumed even when it looks like a keyword.
  ExpectParams(Read("fat:start:range:3"), 0xdead, 0xdead, 0xdead);
}

TEST(ReadCorruptionParameters, RepeatedKeywordTakesTheLaterValidValue) {
  ExpectParams(Read("fat:start:1:start:2"), 2, 0xdead, 0xdead);
  ExpectParams(Read("fat:start:1:start:zz"), 1, 0xdead, 0xdead);
}

TEST(ReadCorruptionParameters, TheKindItselfIsNeverAKeyword) {
  ExpectParams(Read("start:5"), 0xdead, 0xdead, 0xdead);
  ExpectParams(Read("value"), 0xdead, 0xdead, 0xdead);
}
