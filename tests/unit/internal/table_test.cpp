#include "internal/table.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support.h"

namespace kiv::internal {
namespace {

struct Entry {
  std::string name;
  int number = 0;
};

using Names = std::vector<std::string>;

// Accepts every line that does not begin with '#'; the record is filled in any case.
bool Accept(const std::string& line, Entry& entry) {
  entry.name = line;
  return line.empty() || line[0] != '#';
}

Names NamesOf(const std::vector<Entry>& entries) {
  Names names;
  for (const Entry& entry : entries) {
    names.push_back(entry.name);
  }
  return names;
}

Names Read(const std::string& content, int headings) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/table";
  test::WriteFile(path, content);
  std::vector<Entry> entries;
  ReadTable(path.c_str(), headings, Accept, entries);
  return NamesOf(entries);
}

TEST(ReadTable, KeepsEveryLineInItsOrder) { EXPECT_EQ(Read("b\na\n\nc d\n", 0), (Names{"b", "a", "", "c d"})); }

TEST(ReadTable, SkipsAsManyHeadingsAsAreAskedFor) {
  EXPECT_EQ(Read("1\n2\n3\n", 1), (Names{"2", "3"}));
  EXPECT_EQ(Read("1\n2\n3\n", 2), (Names{"3"}));
  EXPECT_EQ(Read("\n\n3\n", 2), (Names{"3"})) << "whatever they hold";
}

TEST(ReadTable, WithNoMoreLinesThanHeadingsThereIsNothing) {
  for (const char* content : {"", "1", "1\n", "1\n2", "1\n2\n", "\n", "\n\n"}) {
    EXPECT_EQ(Read(content, 2), Names()) << content;
  }
}

TEST(ReadTable, LastLineNeedsNoLineBreak) {
  EXPECT_EQ(Read("1\n2", 0), (Names{"1", "2"}));
  EXPECT_EQ(Read("1\n2\n3", 2), (Names{"3"}));
}

TEST(ReadTable, RejectedRecordsAreNotKept) { EXPECT_EQ(Read("#1\n2\n#3\n4\n#5\n", 0), (Names{"2", "4"})); }

TEST(ReadTable, EveryLineIsReadIntoARecordOfItsOwn) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/table";
  test::WriteFile(path, "1\n2\n3\n");
  std::vector<Entry> entries;
  const auto count = [](const std::string& /*line*/, Entry& entry) { return ++entry.number == 1; };

  ReadTable(path.c_str(), 0, count, entries);

  EXPECT_EQ(entries.size(), 3U);
}

TEST(ReadTable, PassesEveryByteOfALine) {
  const std::string mega(1 << 20, 'x');
  const std::string odd(" \0\t\xff\r", 5);

  EXPECT_EQ(Read(mega + '\n' + mega + '\n' + odd + '\n' + odd, 1), (Names{mega, odd, odd}));
}

TEST(ReadTable, AppendsBehindWhatIsThere) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/table";
  test::WriteFile(path, "2\n3\n");
  std::vector<Entry> entries = {{"1", 1}};

  ReadTable(path.c_str(), 0, Accept, entries);
  ReadTable(path.c_str(), 1, Accept, entries);

  EXPECT_EQ(NamesOf(entries), (Names{"1", "2", "3", "3"}));
}

TEST(ReadTable, WithoutAReadableFileNothingIsAdded) {
  const test::TempFolder folder;
  const std::size_t before = test::CountOpenFds();
  for (const std::string& path : {folder.Path() + "/missing", folder.Path(), std::string()}) {
    for (const int headings : {0, 2}) {
      std::vector<Entry> entries = {{"1", 1}};
      ReadTable(path.c_str(), headings, Accept, entries);
      EXPECT_EQ(NamesOf(entries), (Names{"1"})) << path;
    }
  }
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(TakeByName, MovesTheFirstOfTwoEqualNames) {
  const std::string longName(100, 'n');
  std::vector<Entry> entries = {{"a", 1}, {longName, 2}, {longName, 3}};
  Entry out{"used", 7};

  EXPECT_TRUE(TakeByName(entries, longName, out));

  EXPECT_EQ(out.name, longName);
  EXPECT_EQ(out.number, 2);
  EXPECT_EQ(entries[1].name, "") << "moved from";
  EXPECT_EQ(entries[2].name, longName);
}

TEST(TakeByName, LengthAndEveryByteMatter) {
  std::vector<Entry> entries = {{"eth0", 1}, {std::string("lo\0x", 4), 2}, {"", 3}};
  for (const std::string& name : {std::string("eth"), std::string("eth01"), std::string("ETH0"), std::string(" eth0"),
                                  std::string("lo"), std::string("lo\0", 3), std::string("eth0\0", 5)}) {
    Entry out{"used", 7};
    EXPECT_FALSE(TakeByName(entries, name, out)) << name;
    EXPECT_EQ(out.name + std::to_string(out.number), "used7") << name;
  }
  Entry out;
  EXPECT_TRUE(TakeByName(entries, "", out));
  EXPECT_EQ(out.number, 3);
  EXPECT_TRUE(TakeByName(entries, std::string("lo\0x", 4), out));
  EXPECT_EQ(out.number, 2);
}

TEST(TakeByName, OfNoRecordsFindsNone) {
  std::vector<Entry> none;
  Entry out{"used", 7};

  EXPECT_FALSE(TakeByName(none, "", out));
  EXPECT_EQ(out.name, "used");
}

}  // namespace
}  // namespace kiv::internal
