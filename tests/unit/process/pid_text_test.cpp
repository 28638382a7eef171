#include "process/pid_text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

namespace kiv::process {
namespace {

struct PidRow {
  std::string text;
  int expected;
};

TEST(PidOfFileContent, DecimalNumberIsThePid) {
  const PidRow rows[] = {{"1", 1}, {"12345", 12345}, {"32768", 32768}, {"007", 7}, {"010", 10}, {"+5", 5}};

  for (const PidRow& row : rows) {
    EXPECT_EQ(PidOfFileContent(row.text.c_str()), row.expected) << row.text;
  }
}

TEST(PidOfFileContent, RangeEndsAtTheKernelsLimit) {
  const PidRow rows[] = {{"0", 0},
                         {"00", 0},
                         {"-1", 0},
                         {"-5", 0},
                         {"-0", 0},
                         {"4194303", 4194303},
                         {"4194304", 4194304},
                         {"4194305", 0},
                         {"2147483648", 0},
                         {"4294967297", 0},
                         {"18446744073709551617", 0},
                         {"99999999999999999999999999999", 0},
                         {"-99999999999999999999999999999", 0}};

  for (const PidRow& row : rows) {
    EXPECT_EQ(PidOfFileContent(row.text.c_str()), row.expected) << row.text;
  }
}

TEST(PidOfFileContent, AnythingBehindTheNumberMakesItNone) {
  for (const char* text :
       {"12345\n", "12345 ", "12345\t", "12345\r\n", "12345x", "12345.0", "12345 6", "0x10", "1e3"}) {
    EXPECT_EQ(PidOfFileContent(text), 0) << text;
  }
}

TEST(PidOfFileContent, WhitespaceInFrontIsTaken) {
  for (const char* text : {" 12345", "\n12345", "\t\v\f\r 12345", " +12345"}) {
    EXPECT_EQ(PidOfFileContent(text), 12345) << text;
  }
}

TEST(PidOfFileContent, TextWithoutDigitsIsNone) {
  for (const char* text : {"", " ", "\n", "abc", "-", "+", "+-5", "--5", "- 5", "x5"}) {
    EXPECT_EQ(PidOfFileContent(text), 0) << text;
  }
}

TEST(PidOfFileContent, ErrnoFromBeforeDoesNotCount) {
  errno = ERANGE;

  EXPECT_EQ(PidOfFileContent("12345"), 12345);
}

// As PidOfFileContent, stated by hand: whitespace, at most one sign, digits and nothing else.
int PidByGrammar(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size() && (text[at] == ' ' || text[at] == '\n')) {
    ++at;
  }
  const bool negative = at < text.size() && text[at] == '-';
  if (negative || (at < text.size() && text[at] == '+')) {
    ++at;
  }
  int value = 0;
  for (; at < text.size(); ++at) {
    if (text[at] < '0' || text[at] > '9') {
      return 0;
    }
    value = 10 * value + (text[at] - '0');
  }
  return negative ? 0 : value;
}

TEST(PidOfFileContent, ExhaustiveComparisonOverShortTexts) {
  std::vector<std::string> texts = {""};
  for (std::size_t i = 0; i < texts.size() && texts[i].size() < 5; ++i) {
    for (const char byte : {'0', '7', ' ', '\n', '+', '-', 'x'}) {
      texts.push_back(texts[i] + byte);
    }
  }
  ASSERT_EQ(texts.size(), 1U + 7 + 49 + 343 + 2401 + 16807);

  for (const std::string& text : texts) {
    ASSERT_EQ(PidOfFileContent(text.c_str()), PidByGrammar(text)) << '"' << text << '"';
  }
}

TEST(PidOfProcEntry, DigitsAreThePid) {
  const PidRow rows[] = {{"1", 1}, {"42", 42}, {"4194304", 4194304}, {"0123456789", 123456789}, {"010", 10}};

  for (const PidRow& row : rows) {
    EXPECT_EQ(PidOfProcEntry(row.text), row.expected) << row.text;
  }
}

TEST(PidOfProcEntry, NameWithAnyOtherByteIsNone) {
  for (const char* name : {"self", "net", "1a", "a1", "+1", "-1", " 1", "1 ", "1\n", "1.", "0x1", ".", "..", "/", ":",
                           "1/", "\xd9\xa1", "\xb9"}) {
    EXPECT_EQ(PidOfProcEntry(name), 0) << name;
  }
  EXPECT_EQ(PidOfProcEntry(std::string("1\0", 2)), 0);
  EXPECT_EQ(PidOfProcEntry(std::string("1\0002", 3)), 0);
}

TEST(PidOfProcEntry, EmptyNameAndZeroAreNone) {
  for (const char* name : {"", "0", "000"}) {
    EXPECT_EQ(PidOfProcEntry(name), 0) << name;
  }
}

// Cut to 32 bits, these would be -1, 0 or a pid in use, which the caller might signal.
TEST(PidOfProcEntry, NumberBeyondTheRangeIsNoOtherPid) {
  EXPECT_EQ(PidOfProcEntry("2147483647"), INT_MAX);
  for (const char* name : {"2147483648", "4294967295", "4294967296", "4294967297", "18446744073709551615",
                           "18446744073709551617", "99999999999999999999999999999"}) {
    EXPECT_EQ(PidOfProcEntry(name), INT_MAX) << name;
  }
}

}  // namespace
}  // namespace kiv::process
