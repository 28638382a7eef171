#include "internal/lines.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/support.h"

namespace kiv::internal {
namespace {

using Lines = std::vector<std::string>;

class ForEachLineOfAFile : public testing::Test {
 protected:
  // Takes lines until one is "stop".
  bool Read(const std::string& content) {
    const std::string path = mFolder.Path() + "/lines";
    test::WriteFile(path, content);
    return ForEachLine(path.c_str(), [this](const std::string& line) {
      mLines.push_back(line);
      return line != "stop";
    });
  }

  test::TempFolder mFolder;
  Lines mLines;
};

TEST_F(ForEachLineOfAFile, GivesAllOfThemWithoutTheirNewlines) {
  EXPECT_TRUE(Read(std::string("a\r\n\n b\0c \nlast", 14)));

  EXPECT_EQ(mLines, (Lines{"a\r", "", std::string(" b\0c ", 5), "last"}));
}

TEST_F(ForEachLineOfAFile, GivesTheLastOneWithAndWithoutANewline) {
  EXPECT_TRUE(Read("a\nb"));
  EXPECT_TRUE(Read("a\nb\n"));
  EXPECT_TRUE(Read(""));

  EXPECT_EQ(mLines, (Lines{"a", "b", "a", "b"}));
}

TEST_F(ForEachLineOfAFile, EndsWithFalseWhenOneIsRefused) {
  EXPECT_FALSE(Read("a\nstop\nb\n"));

  EXPECT_EQ(mLines, (Lines{"a", "stop"}));
}

TEST_F(ForEachLineOfAFile, IsFalseWhenItIsNoneOrAFolder) {
  const auto takeNone = [](const std::string&) { return true; };

  EXPECT_FALSE(ForEachLine((mFolder.Path() + "/none").c_str(), takeNone));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(ForEachLine(mFolder.Path().c_str(), takeNone));
  EXPECT_EQ(errno, EISDIR);
}

}  // namespace
}  // namespace kiv::internal
