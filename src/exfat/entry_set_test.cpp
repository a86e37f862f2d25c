#include "exfat/entry_set.h"

#include <gtest/gtest.h>

#include "exfat_layout.h"

namespace {

// The set's checksum and hash as this model computes them, entry by entry.
uint16_t ModelChecksum(const std::vector<testsupport::RawEntry>& set) {
  uint16_t sum = 0;
  for (size_t i = 0; i < set.size(); ++i) sum = AddEntryToChecksum(sum, set[i], i == 0);
  return sum;
}

}  // namespace

TEST(EntrySetChecksum, AgreesWithAnIndependentComputation) {
  for (const std::u16string& name : {std::u16string(u"a"), std::u16string(u"Report 2024.txt"),
                                     std::u16string(u"\u65e5\u672c\u8a9e\u30d5\u30a1\u30a4\u30eb"),
                                     std::u16string(200, u'x')}) {
    testsupport::EntrySetSpec spec;
    spec.name = name;
    spec.first_cluster = 77;
    spec.data_length = 12345;
    spec.valid_data_length = 12345;
    const std::vector<testsupport::RawEntry> set = testsupport::BuildEntrySet(spec);
    EXPECT_EQ(ModelChecksum(set), testsupport::GetLe(&set[0][2], 2));
    const std::u16string upcased = testsupport::UpcaseAscii(name);
    EXPECT_EQ(NameHash(upcased), testsupport::GetLe(&set[1][4], 2));
  }
}

TEST(EntrySetChecksum, FileEntrysOwnChecksumBytesAreLeftOut) {
  testsupport::EntrySetSpec spec;
  spec.name = u"name";
  std::vector<testsupport::RawEntry> set = testsupport::BuildEntrySet(spec);
  const uint16_t sum = ModelChecksum(set);
  set[0][2] ^= 0xFF;
  set[0][3] ^= 0xFF;
  EXPECT_EQ(ModelChecksum(set), sum);
  set[0][4] ^= 0x01;
  EXPECT_NE(ModelChecksum(set), sum);
  // In a secondary entry bytes 2 and 3 count.
  set[0][4] ^= 0x01;
  set[1][2] ^= 0x01;
  EXPECT_NE(ModelChecksum(set), sum);
}

TEST(DisplayName, JoinsSurrogatePairsAndReplacesWhatCannotBePrinted) {
  EXPECT_EQ(DisplayName(u"plain"), L"plain");
  EXPECT_EQ(DisplayName(u"gr\u00f6\u00dfe"), L"gr\u00f6\u00dfe");
  EXPECT_EQ(DisplayName(u"\U0001F600.txt"), std::wstring(L"\U0001F600.txt"));
  const std::u16string lone_high{u'a', char16_t(0xD83D), u'b'};
  const std::u16string lone_low{char16_t(0xDE00), u'c'};
  const std::u16string with_nul{u'x', char16_t(0), u'y'};
  EXPECT_EQ(DisplayName(lone_high), L"a\uFFFDb");
  EXPECT_EQ(DisplayName(lone_low), L"\uFFFDc");
  EXPECT_EQ(DisplayName(with_nul), L"x\uFFFDy");
  EXPECT_EQ(DisplayName(std::u16string{char16_t(0xD83D)}), L"\uFFFD");
}
