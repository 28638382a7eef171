#include "utils/split.h"

#include <gtest/gtest.h>
#include <kiv/utils.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kiv::utils {
namespace {

using Fields = std::vector<std::string>;
using Pair = std::pair<std::string, std::string>;

std::string Text(StringView view) { return {view.Data() == nullptr ? "" : view.Data(), view.Size()}; }

static_assert(std::is_convertible_v<const std::string&, StringView>);
static_assert(std::is_convertible_v<const char*, StringView>);
static_assert(std::is_trivially_copyable_v<StringView>);
static_assert(sizeof(StringView) == sizeof(const char*) + sizeof(std::size_t), "a pointer and a length");

TEST(StringView, DefaultIsEmptyWithANullPointer) {
  const StringView view;

  EXPECT_EQ(view.Data(), nullptr);
  EXPECT_EQ(view.Size(), 0U);
  EXPECT_TRUE(view.Empty());
}

TEST(StringView, HoldsThePointerBeforeTheLength) {
  const char* const text = "abc";
  const StringView view(text, 2);
  struct {
    const char* data;
    std::size_t size;
  } fields;
  static_assert(sizeof fields == sizeof view);

  std::memcpy(&fields, &view, sizeof view);

  EXPECT_EQ(fields.data, text);
  EXPECT_EQ(fields.size, 2U);
}

TEST(StringView, FromAStringSeesAllBytesInPlace) {
  const std::string text("a\0b", 3);

  const StringView view = text;

  EXPECT_EQ(view.Data(), text.data());
  EXPECT_EQ(view.Size(), 3U);
  EXPECT_FALSE(view.Empty());
}

TEST(StringView, FromACStringEndsAtTheTerminator) {
  const StringView view = "ab\0c";

  EXPECT_EQ(view.Size(), 2U);
  EXPECT_EQ(Text(view), "ab");
}

TEST(StringView, FromANullPointerIsEmpty) {
  const char* const text = nullptr;

  const StringView view = text;

  EXPECT_EQ(view.Data(), nullptr);
  EXPECT_EQ(view.Size(), 0U);
}

TEST(StringView, FromPointerAndLengthNeedsNoTerminator) {
  const char bytes[] = {'x', '\0', 'y'};

  EXPECT_EQ(Text(StringView(bytes, 3)), std::string("x\0y", 3));
  EXPECT_EQ(Text(StringView(bytes, 1)), "x");
}

TEST(Trim, DropsEachKindOfWhitespaceOnBothSides) {
  for (const char* space : {" ", "\f", "\n", "\r", "\t", "\v"}) {
    EXPECT_EQ(Text(Trim(space + std::string("a") + space)), "a");
  }
}

TEST(Trim, CountsNulAsWhitespace) {
  EXPECT_EQ(Text(Trim(std::string("\0 a\0b\0 \0", 8))), std::string("a\0b", 3));
  EXPECT_EQ(Trim(std::string(3, '\0')).Data(), nullptr);
}

TEST(Trim, KeepsEveryOtherByte) {
  for (int value = 0; value < 256; ++value) {
    const std::string byte(1, static_cast<char>(value));
    const bool space = std::string("\0\f\n\r\t\v ", 7).find(byte) != std::string::npos;

    EXPECT_EQ(Text(Trim(byte)), space ? "" : byte) << value;
  }
}

TEST(Trim, KeepsWhitespaceInside) { EXPECT_EQ(Text(Trim(" a \t b ")), "a \t b"); }

TEST(Trim, WhitespaceAloneGivesTheNullView) {
  for (const char* text : {" \t\r\n", " ", ""}) {
    const StringView trimmed = Trim(text);

    EXPECT_EQ(trimmed.Data(), nullptr);
    EXPECT_EQ(trimmed.Size(), 0U);
  }
}

TEST(Trim, PointsIntoTheCallersBytes) {
  const std::string text = "  ab ";

  EXPECT_EQ(Trim(text).Data(), text.data() + 2);
  EXPECT_EQ(Trim(text).Size(), 2U);
}

TEST(Trim, ReadsNothingOutsideTheView) {
  const std::string text = "xx   xx";

  EXPECT_EQ(Trim(StringView(text.data() + 2, 3)).Data(), nullptr);
  EXPECT_EQ(Text(Trim(StringView(text.data(), 4))), "xx");
}

TEST(Split, KeepsAnEmptyFieldBetweenTwoDelimiters) { EXPECT_EQ(Split("a,,b", ","), (Fields{"a", "", "b"})); }

TEST(Split, KeepsAnEmptyFieldAtTheEnd) { EXPECT_EQ(Split("a,b,", ","), (Fields{"a", "b", ""})); }

TEST(Split, KeepsAnEmptyFieldAtTheStart) { EXPECT_EQ(Split(",a", ","), (Fields{"", "a"})); }

TEST(Split, EmptyTextGivesOneEmptyField) {
  EXPECT_EQ(Split("", ","), Fields{""});
  EXPECT_EQ(Split(StringView(), ","), Fields{""});
}

TEST(Split, EmptyDelimiterGivesNoFields) {
  EXPECT_EQ(Split("a,b", ""), Fields{});
  EXPECT_EQ(Split("", ""), Fields{});
  EXPECT_EQ(Split("a,b", StringView()), Fields{});
}

TEST(Split, DelimiterAloneGivesTwoEmptyFields) { EXPECT_EQ(Split(",", ","), (Fields{"", ""})); }

TEST(Split, TextWithoutTheDelimiterIsOneField) { EXPECT_EQ(Split("abc", ","), Fields{"abc"}); }

TEST(Split, DelimiterIsAStringAndNotASet) {
  EXPECT_EQ(Split("a::b", "::"), (Fields{"a", "b"}));
  EXPECT_EQ(Split("a:b", "::"), Fields{"a:b"});
}

TEST(Split, SearchGoesOnBehindTheWholeDelimiter) {
  EXPECT_EQ(Split("a:::b", "::"), (Fields{"a", ":b"}));
  EXPECT_EQ(Split("aaaa", "aa"), (Fields{"", "", ""}));
}

TEST(Split, FieldsAreNotTrimmed) { EXPECT_EQ(Split(" a , b\n", ","), (Fields{" a ", " b\n"})); }

TEST(Split, DelimiterLongerThanTheTextIsNotFound) { EXPECT_EQ(Split(":", "::"), Fields{":"}); }

TEST(Split, WorksOnNulBytes) {
  const std::string text("a\0b,c\0", 6);

  EXPECT_EQ(Split(text, ","), (Fields{std::string("a\0b", 3), std::string("c\0", 2)}));
  EXPECT_EQ(Split(text, StringView("\0", 1)), (Fields{"a", "b,c", ""}));
}

TEST(Split, ReadsNothingOutsideTheView) {
  const std::string text = "a::b";

  EXPECT_EQ(Split(StringView(text.data(), 2), "::"), Fields{"a:"});
}

// Byte by byte, and by other means than the library.
Fields SplitSlowly(const std::string& text, const std::string& delimiter) {
  Fields fields;
  std::string field;
  std::size_t at = 0;
  while (at < text.size()) {
    if (text.compare(at, delimiter.size(), delimiter) == 0) {
      fields.push_back(field);
      field.clear();
      at += delimiter.size();
    } else {
      field += text[at++];
    }
  }
  fields.push_back(field);
  return fields;
}

std::string RandomText(std::mt19937& random, std::size_t longest) {
  const std::string alphabet("ab:= \n\0", 7);
  std::string text(random() % (longest + 1), ' ');
  for (char& byte : text) {
    byte = alphabet[random() % alphabet.size()];
  }
  return text;
}

TEST(Split, AgreesWithASlowReferenceOnRandomText) {
  std::mt19937 random(20240607);
  for (int i = 0; i < 20000; ++i) {
    const std::string text = RandomText(random, 30);
    const std::string delimiter = RandomText(random, 2) + "a:"[i % 2];

    ASSERT_EQ(Split(text, delimiter), SplitSlowly(text, delimiter)) << i;
  }
}

TEST(Split, FieldsJoinToTheTextAgain) {
  std::mt19937 random(7);
  for (int i = 0; i < 5000; ++i) {
    const std::string text = RandomText(random, 40);
    std::string joined;
    for (const std::string& field : Split(text, ":")) {
      joined += field + ":";
    }

    ASSERT_EQ(joined, text + ":") << i;
  }
}

TEST(SplitColumns, RunsOfBlanksSeparate) {
  EXPECT_EQ(SplitColumns("a b"), (Fields{"a", "b"}));
  EXPECT_EQ(SplitColumns("   8       0 sda 1"), (Fields{"8", "0", "sda", "1"}));
}

TEST(SplitColumns, BlanksAroundGiveNoColumn) { EXPECT_EQ(SplitColumns("  a  "), Fields{"a"}); }

TEST(SplitColumns, OtherWhitespaceSeparatesNothing) {
  EXPECT_EQ(SplitColumns("a\tb\nc\rd\ve\ff"), Fields{"a\tb\nc\rd\ve\ff"});
  EXPECT_EQ(SplitColumns("a \t b\n"), (Fields{"a", "\t", "b\n"}));
}

TEST(SplitColumns, TextWithoutAColumnGivesNone) {
  for (const StringView text : {StringView(), StringView(""), StringView(" "), StringView("     ")}) {
    EXPECT_EQ(SplitColumns(text), Fields{});
  }
}

TEST(SplitColumns, NulBytesAreBytesLikeOthers) {
  EXPECT_EQ(SplitColumns(std::string("a\0b \0", 5)), (Fields{std::string("a\0b", 3), std::string(1, '\0')}));
}

TEST(SplitColumns, ReadsNothingOutsideTheView) {
  const std::string text = "ab cd";

  EXPECT_EQ(SplitColumns(StringView(text.data(), 4)), (Fields{"ab", "c"}));
}

TEST(SplitColumns, AgreesWithASlowReferenceOnRandomText) {
  std::mt19937 random(1702);
  for (int i = 0; i < 20000; ++i) {
    const std::string text = RandomText(random, 30);
    Fields expected = SplitSlowly(text, " ");
    expected.erase(std::remove(expected.begin(), expected.end(), ""), expected.end());

    ASSERT_EQ(SplitColumns(text), expected) << i;
  }
}

TEST(SplitKeyValue, SplitsAtTheFirstSeparatorAndTrims) {
  EXPECT_EQ(SplitKeyValue("  key = va=lue \r\n", "="), Pair("key", "va=lue"));
}

TEST(SplitKeyValue, TextWithoutTheSeparatorGivesTwoEmptyStrings) {
  EXPECT_EQ(SplitKeyValue("key", "="), Pair("", ""));
  EXPECT_EQ(SplitKeyValue("a:b", "::"), Pair("", ""));
}

TEST(SplitKeyValue, TextOfWhitespaceGivesTwoEmptyStrings) {
  EXPECT_EQ(SplitKeyValue(" \t\r\n", "="), Pair("", ""));
  EXPECT_EQ(SplitKeyValue("", "="), Pair("", ""));
  EXPECT_EQ(SplitKeyValue("  ", " "), Pair("", ""));
}

TEST(SplitKeyValue, EmptySeparatorGivesTwoEmptyStrings) { EXPECT_EQ(SplitKeyValue("key=value", ""), Pair("", "")); }

TEST(SplitKeyValue, EmptyKeyIsReturned) { EXPECT_EQ(SplitKeyValue("=x", "="), Pair("", "x")); }

TEST(SplitKeyValue, EmptyValueIsReturned) { EXPECT_EQ(SplitKeyValue("k=", "="), Pair("k", "")); }

TEST(SplitKeyValue, SeparatorAloneGivesTwoEmptyStrings) { EXPECT_EQ(SplitKeyValue(" = ", "="), Pair("", "")); }

TEST(SplitKeyValue, SeparatorIsAString) { EXPECT_EQ(SplitKeyValue("a:b :: c::d", "::"), Pair("a:b", "c::d")); }

TEST(SplitKeyValue, WhitespaceSeparatorIsSearchedInTheTrimmedText) {
  EXPECT_EQ(SplitKeyValue("  key \t value ", " "), Pair("key", "value"));
  EXPECT_EQ(SplitKeyValue(" key ", " "), Pair("", ""));
}

TEST(SplitKeyValue, NulBytesAroundAreTrimmedAndInsideKept) {
  const std::string text("\0k\0k\0=\0v\0", 9);

  EXPECT_EQ(SplitKeyValue(text, "="), Pair(std::string("k\0k", 3), "v"));
}

std::string TrimSlowly(std::string text) {
  const std::string space("\0\f\n\r\t\v ", 7);
  while (!text.empty() && space.find(text.back()) != std::string::npos) {
    text.pop_back();
  }
  while (!text.empty() && space.find(text.front()) != std::string::npos) {
    text.erase(0, 1);
  }
  return text;
}

TEST(Trim, AgreesWithASlowReferenceOnRandomText) {
  std::mt19937 random(99);
  for (int i = 0; i < 20000; ++i) {
    const std::string text = RandomText(random, 12);

    ASSERT_EQ(Text(Trim(text)), TrimSlowly(text)) << i;
  }
}

TEST(SplitKeyValue, AgreesWithASlowReferenceOnRandomText) {
  std::mt19937 random(4711);
  for (int i = 0; i < 20000; ++i) {
    const std::string text = RandomText(random, 20);
    const std::string separator = RandomText(random, 1) + "=: "[i % 3];
    const Fields fields = SplitSlowly(TrimSlowly(text), separator);
    Pair expected;
    if (fields.size() > 1) {
      const std::string rest = TrimSlowly(text).substr(fields[0].size() + separator.size());
      expected = {TrimSlowly(fields[0]), TrimSlowly(rest)};
    }

    ASSERT_EQ(SplitKeyValue(text, separator), expected) << i;
  }
}

}  // namespace
}  // namespace kiv::utils
