#ifndef KIV_INTERNAL_UNIQUE_DIR_H
#define KIV_INTERNAL_UNIQUE_DIR_H

#include <dirent.h>

#include <cerrno>

namespace kiv::internal {

/// Owns one directory stream, or none when the directory could not be opened, and closes it once.
class UniqueDir {
 public:
  /// Opens `path`; see IsValid. The stream's descriptor is close-on-exec, as opendir(3) makes it.
  explicit UniqueDir(const char* path) noexcept : mStream(::opendir(path)) {}
  UniqueDir(const UniqueDir&) = delete;
  UniqueDir& operator=(const UniqueDir&) = delete;
  ~UniqueDir() { Close(); }

  bool IsValid() const noexcept { return mStream != nullptr; }

  /// Returns the name of the next entry, valid until the next call, or null at the end and on failure.
  const char* Next() noexcept {
    const dirent* const entry = ::readdir(mStream);
    return entry == nullptr ? nullptr : entry->d_name;
  }

  /// Closes the stream now. Leaves errno as it was, so that a failure keeps its reason.
  void Close() noexcept {
    if (mStream != nullptr) {
      const int saved = errno;
      (void)::closedir(mStream);
      mStream = nullptr;
      errno = saved;
    }
  }

 private:
  DIR* mStream;
};

}  // namespace kiv::internal

#endif  // KIV_INTERNAL_UNIQUE_DIR_H
