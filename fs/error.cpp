#include <kiv/fs.h>

namespace kiv::fs {

const char* to_string(error value) {
  switch (value) {
    case success:
      return "Success";
    case dir_open_failed:
      return "Failed to open directory";
    case src_open_failed:
      return "Failed to open source file";
    case dst_open_failed:
      return "Failed to open/create destination file";
    case stat_failed:
      return "stat/fstat failed";
    case not_regular_file:
      return "Path is not a regular file";
    case not_found:
      return "No such file or directory";
    case permission_denied:
      return "Permission denied or operation not permitted";
    case no_space:
      return "No space left on device or quota exceeded";
    case invalid_argument:
      return "Invalid argument";
    case io_error:
      return "I/O error or unexpected condition";
    case sendfile_failed:
      return "sendfile() failed";
    case symlink_failed:
      return "symlink() failed";
    case mkdir_failed:
      return "mkdir() failed";
  }
  return "Unknown error";
}

}  // namespace kiv::fs
