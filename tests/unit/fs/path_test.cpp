#include <gtest/gtest.h>
#include <kiv/fs.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kiv::fs {
namespace {

struct PathRow {
  std::string path;
  std::string expected;
};

TEST(Dirname, IsWhatPrecedesTheLastSlash) {
  const PathRow rows[] = {
      {"", "."},
      {"/", "/"},
      {"a", "."},
      {".", "."},
      {"..", "."},
      {"/usr", "/"},
      {"/usr/lib", "/usr"},
      {"usr/lib", "usr"},
      {"/usr/lib/x.so", "/usr/lib"},
      {"./a", "."},
      {"../a", ".."},
      {"a/..", "a"},
      {"a b/c d", "a b"},
      {"a\nb/c", "a\nb"},
      {"\xff/\x80", "\xff"},
      {std::string("a\0b/c", 5), std::string("a\0b", 3)},
  };

  for (const PathRow& row : rows) {
    EXPECT_EQ(Dirname(row.path), row.expected) << '"' << row.path << '"';
  }
}

TEST(Dirname, SlashesAtTheEndAreDropped) {
  const PathRow rows[] = {
      {"//", "/"}, {"///", "/"}, {"a/", "."}, {"a///", "."}, {"/usr/", "/"}, {"/usr///", "/"}, {"a/b//", "a"},
  };

  for (const PathRow& row : rows) {
    EXPECT_EQ(Dirname(row.path), row.expected) << row.path;
  }
}

TEST(Dirname, SlashesBeforeTheLastOneAreKept) {
  EXPECT_EQ(Dirname("a//b"), "a/");
  EXPECT_EQ(Dirname("a///b"), "a//");
  EXPECT_EQ(Dirname("a//b/"), "a/");
  EXPECT_EQ(Dirname("//a"), "/");
  EXPECT_EQ(Dirname("///a"), "//");
}

TEST(Basename, IsWhatFollowsTheLastSlash) {
  const PathRow rows[] = {
      {"", ""},
      {"a", "a"},
      {".", "."},
      {"/usr", "usr"},
      {"/usr/lib", "lib"},
      {"a//b", "b"},
      {"../..", ".."},
      {"/bin/echo", "echo"},
      {"a b/c d", "c d"},
      {"a/\xff", "\xff"},
      {std::string("a/b\0c", 5), std::string("b\0c", 3)},
  };

  for (const PathRow& row : rows) {
    EXPECT_EQ(Basename(row.path), row.expected) << '"' << row.path << '"';
  }
}

TEST(Basename, SlashAtTheEndLeavesNothing) {
  for (const char* path : {"/", "//", "a/", "lib/", "a/b/", "/a//"}) {
    EXPECT_EQ(Basename(path), "") << path;
  }
}

TEST(PathText, LengthsBeyondWhatTheKernelTakesWork) {
  const std::string longName(1 << 20, 'n');

  EXPECT_EQ(Dirname(longName + "/x"), longName);
  EXPECT_EQ(Basename("x/" + longName), longName);
  EXPECT_EQ(Dirname(std::string(1 << 20, '/')), "/");
}

// All texts of these bytes, the shortest first.
std::vector<std::string> AllTexts(const std::string& bytes, std::size_t maxLength) {
  std::vector<std::string> texts = {""};
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (texts[i].size() == maxLength) {
      break;
    }
    for (const char byte : bytes) {
      texts.push_back(texts[i] + byte);
    }
  }
  return texts;
}

// By components: what stands before the slash before the last component.
std::string DirectoryByComponents(const std::string& path) {
  std::size_t lastComponent = std::string::npos;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (path[i] != '/' && (i == 0 || path[i - 1] == '/')) {
      lastComponent = i;
    }
  }
  if (lastComponent == std::string::npos) {
    return path.empty() ? "." : "/";
  }
  if (lastComponent <= 1) {
    return lastComponent == 0 ? "." : "/";
  }
  return path.substr(0, lastComponent - 1);
}

std::string BytesSinceTheLastSlash(const std::string& path) {
  std::string bytes;
  for (const char byte : path) {
    byte == '/' ? bytes.clear() : bytes.push_back(byte);
  }
  return bytes;
}

TEST(PathText, ExhaustiveComparisonOverShortPaths) {
  const std::vector<std::string> paths = AllTexts("/a.", 7);
  ASSERT_EQ(paths.size(), 3280U);

  for (const std::string& path : paths) {
    ASSERT_EQ(Dirname(path), DirectoryByComponents(path)) << '"' << path << '"';
    ASSERT_EQ(Basename(path), BytesSinceTheLastSlash(path)) << '"' << path << '"';
  }
}

}  // namespace
}  // namespace kiv::fs
