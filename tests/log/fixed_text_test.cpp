// SPDX-License-Identifier: Apache-2.0
#include "fixed_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace ara::log {
namespace {

std::string Escaped(const std::string& text, std::size_t capacity = 64, bool expectFit = true) {
  char buffer[64];
  FixedText result(buffer, capacity);
  EXPECT_EQ(result.AppendEscaped(text), expectFit);
  return {result.data(), result.size()};
}

TEST(FixedText, EscapesEveryControlCharacterAndNothingElse) {
  EXPECT_EQ(Escaped("a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(Escaped("\x1b[2J\x7f"), "\\x1b[2J\\x7f");
  EXPECT_EQ(Escaped(std::string("\0\x01\x1f", 3)), "\\x00\\x01\\x1f");
  EXPECT_EQ(Escaped("\x1a\x1c\x1d\x1e"), "\\x1a\\x1c\\x1d\\x1e");
  EXPECT_EQ(Escaped("C:\\n %s \xc3\xa4 ~"), "C:\\n %s \xc3\xa4 ~");
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    EXPECT_EQ(Escaped(text) != text, byte < 0x20 || byte == 0x7f) << byte;
  }
}

TEST(FixedText, SplitsNeitherAnEscapeNorACharacter) {
  EXPECT_EQ(Escaped("abcd", 4), "abcd");
  EXPECT_EQ(Escaped("abcde", 4, false), "abcd");
  EXPECT_EQ(Escaped("ab\n", 4), "ab\\n");
  EXPECT_EQ(Escaped("abc\n", 4, false), "abc");
  EXPECT_EQ(Escaped("a\x1b", 4, false), "a");
  EXPECT_EQ(Escaped("abc\xc3\xa4", 4, false), "abc");                     // two bytes, room for one
  EXPECT_EQ(Escaped("ab\xe2\x82\xac", 4, false), "ab");                   // three, room for two
  EXPECT_EQ(Escaped("a\xf0\x9f\x98\x80", 4, false), "a");                 // four, room for three
  EXPECT_EQ(Escaped("\xc3\xa4\xc3\xa4", 4), "\xc3\xa4\xc3\xa4");          // fits
  EXPECT_EQ(Escaped("\xc3\xa4\xc3\xa4x", 4, false), "\xc3\xa4\xc3\xa4");  // complete before the cut
}

TEST(FixedText, DropsASplitCharacterAtTheStart) {
  EXPECT_EQ(Escaped("\xe2\x82\xac", 2, false), "");
  EXPECT_EQ(Escaped("\xc3\xa4", 1, false), "");
  EXPECT_EQ(Escaped("\xc0\x80", 1, false), "") << "the smallest byte that begins a sequence";
}

TEST(FixedText, DropsAtMostFourBytesOfWhatIsNoUtf8) {
  const std::string continuations(6, '\xbf');
  EXPECT_EQ(Escaped(continuations, 2, false), continuations.substr(0, 2));
  EXPECT_EQ(Escaped(continuations, 5, false), continuations.substr(0, 5));
  EXPECT_EQ(Escaped("a\xf8" + continuations, 5, false), "a") << "a first byte and three more";
  EXPECT_EQ(Escaped("a\xf8" + continuations, 6, false), "a\xf8" + continuations.substr(0, 4));
}

TEST(FixedText, NeverLooksAtBytesBeforeItsBuffer) {
  for (const char before : {'\xbf', '\xc3'}) {
    char memory[] = {'\xc3', before, ' ', ' '};
    FixedText text(memory + 2, 2);
    EXPECT_FALSE(text.AppendEscaped("\xbf\xbf\xbf"));
    EXPECT_EQ(text.size(), 2U) << "no first byte of a sequence stands in the buffer";
  }
}

TEST(FixedText, KeepsToTheAllowedBytes) {
  char buffer[16];
  FixedText text(buffer, sizeof buffer);
  EXPECT_TRUE(text.Append("12"));
  EXPECT_FALSE(text.AppendEscaped("abcdef", 3));
  EXPECT_EQ(std::string(text.data(), text.size()), "12abc");
  EXPECT_FALSE(text.Append("0123456789ABC"));
  EXPECT_EQ(std::string(text.data(), text.size()), "12abc0123456789A");
  EXPECT_FALSE(text.AppendEscaped("x", 5));
  EXPECT_EQ(text.size(), 16U);
}

TEST(FixedText, WritesDecimals) {
  char buffer[64];
  FixedText text(buffer, sizeof buffer);
  text.AppendDecimal(0);
  text.Append(" ");
  text.AppendDecimal(7, 2);
  text.Append(" ");
  text.AppendDecimal(2025, 2);
  text.Append(" ");
  text.AppendDecimal(UINT64_MAX);
  EXPECT_EQ(std::string(text.data(), text.size()), "0 07 2025 18446744073709551615");
}

TEST(FixedText, PadsDecimalsToAtMostTwentyDigits) {
  char buffer[64];
  FixedText text(buffer, sizeof buffer);
  EXPECT_TRUE(text.AppendDecimal(7, 20));
  EXPECT_EQ(std::string(text.data(), text.size()), "00000000000000000007");
}

}  // namespace
}  // namespace ara::log
