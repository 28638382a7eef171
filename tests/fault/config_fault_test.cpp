#include <gtest/gtest.h>
#include <kiv/utils.h>

#include <cerrno>
#include <map>
#include <string>

#include "interpose.h"
#include "tests/support.h"

namespace kiv::utils {
namespace {

using test::FailCall;
using test::Fault;
using Values = std::map<std::string, std::string>;

// More lines than one read takes in, so that a later read can fail.
class LongFile {
 public:
  LongFile() : mPath(mFolder.Path() + "/settings") {
    std::string text = "first = 1\n";
    while (text.size() < 40000) {
      text += "# filled up\n";
    }
    test::WriteFile(mPath, text + "last = 2\n");
  }

  const char* Path() const { return mPath.c_str(); }

 private:
  test::TempFolder mFolder;
  std::string mPath;
};

TEST(ParseIniFile, ReadThatFailsBeforeTheEndIsFalseAndKeepsWhatCameBefore) {
  const LongFile file;
  std::map<std::string, Values> sections;
  const Fault fault = FailCall("read", EIO, 2);

  EXPECT_FALSE(ParseIniFile(file.Path(), sections));

  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(sections, (std::map<std::string, Values>{{"", {{"first", "1"}}}}));
}

TEST(ReadKeyValueFile, ReadThatFailsBeforeTheEndIsFalseAndKeepsWhatCameBefore) {
  const LongFile file;
  Values values;
  const Fault fault = FailCall("read", EIO, 2);

  EXPECT_FALSE(Parser::ReadKeyValueFile(file.Path(), values, "=", true));

  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(values, (Values{{"first", "1"}}));
}

}  // namespace
}  // namespace kiv::utils
