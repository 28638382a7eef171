#include <fcntl.h>
#include <kiv/process.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "internal/unique_fd.h"
#include "process/pid_text.h"

namespace kiv::process {
namespace {

constexpr std::size_t kMaxContent = 31;
constexpr mode_t kMode = 0644;

// Makes room for the own process id. Returns false when the file names a live process, or on failure.
bool TakeOver(int fd) {
  char content[kMaxContent + 1];
  const ssize_t size = ::read(fd, content, kMaxContent);
  if (size < 1) {
    return true;  // Empty. One that cannot be read is overwritten as it is.
  }
  content[size] = '\0';
  // Deliberate: only the number counts, so any live process with that id blocks, whatever program it is.
  if (content[0] != '\0' && IsProcessAlive(PidOfFileContent(content))) {
    return false;
  }
  return ::ftruncate(fd, 0) == 0 && ::lseek(fd, 0, SEEK_SET) >= 0;
}

bool WriteOwnPid(int fd) {
  char text[16];
  const int size = std::snprintf(text, sizeof text, "%d", ::getpid());
  return ::write(fd, text, static_cast<std::size_t>(size)) == size && ::fsync(fd) == 0;
}

// Leaves errno as it was, so that a failure keeps its reason.
void Unlock(int fd) {
  const int saved = errno;
  (void)::flock(fd, LOCK_UN);
  errno = saved;
}

}  // namespace

PidFile::PidFile(const std::string& path) : mPath(path) {}

PidFile::~PidFile() {
  if (!mLocked) {
    return;
  }
  if (mFd != -1) {
    Unlock(mFd);
    internal::UniqueFd(mFd).Reset();
  }
  (void)::unlink(mPath.c_str());
}

bool PidFile::Lock() {
  internal::UniqueFd fd(::open(mPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kMode));
  if (!fd.IsValid()) {
    return false;
  }
  if (::flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
    return false;
  }
  if (!TakeOver(fd.Get()) || !WriteOwnPid(fd.Get())) {
    Unlock(fd.Get());
    return false;
  }
  // Deliberate: nothing guards against a second call. It fails at the lock, unless somebody has removed the file.
  mFd = fd.Release();
  mLocked = true;
  return true;
}

}  // namespace kiv::process
