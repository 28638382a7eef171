#include <gtest/gtest.h>
#include <kiv/fs.h>

#include <climits>
#include <cstring>

namespace kiv::fs {
namespace {

error FromNumber(int number) {
  error value = success;
  static_assert(sizeof value == sizeof number);
  std::memcpy(&value, &number, sizeof value);
  return value;
}

TEST(ErrorToString, EveryResultHasItsNumberAndText) {
  const struct {
    error value;
    int number;
    const char* text;
  } rows[] = {
      {success, 0, "Success"},
      {dir_open_failed, 1, "Failed to open directory"},
      {src_open_failed, 2, "Failed to open source file"},
      {dst_open_failed, 3, "Failed to open/create destination file"},
      {stat_failed, 4, "stat/fstat failed"},
      {not_regular_file, 5, "Path is not a regular file"},
      {not_found, 6, "No such file or directory"},
      {permission_denied, 7, "Permission denied or operation not permitted"},
      {no_space, 8, "No space left on device or quota exceeded"},
      {invalid_argument, 9, "Invalid argument"},
      {io_error, 10, "I/O error or unexpected condition"},
      {sendfile_failed, 11, "sendfile() failed"},
      {symlink_failed, 12, "symlink() failed"},
      {mkdir_failed, 13, "mkdir() failed"},
  };

  for (const auto& row : rows) {
    EXPECT_EQ(static_cast<int>(row.value), row.number) << row.text;
    EXPECT_STREQ(to_string(row.value), row.text);
  }
}

TEST(ErrorToString, NumberBehindTheLastIsUnknown) {
  for (const int number : {14, 15}) {
    EXPECT_STREQ(to_string(FromNumber(number)), "Unknown error") << number;
  }
}

TEST(ErrorToString, AnyOtherNumberIsUnknown) {
  for (const int number : {16, 31, 255, 256, 1000000, INT_MAX, -1, INT_MIN}) {
    EXPECT_STREQ(to_string(FromNumber(number)), "Unknown error") << number;
  }
}

TEST(ErrorToString, TextIsStatic) {
  EXPECT_EQ(to_string(io_error), to_string(io_error));
  EXPECT_EQ(to_string(FromNumber(14)), to_string(FromNumber(15)));
  const char* const first = to_string(io_error);
  EXPECT_STREQ(to_string(no_space), "No space left on device or quota exceeded");
  EXPECT_STREQ(first, "I/O error or unexpected condition");
}

}  // namespace
}  // namespace kiv::fs
