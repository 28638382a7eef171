#include <fcntl.h>
#include <kiv/ipc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "internal/unique_fd.h"
#include "ipc/name.h"

namespace kiv::ipc {
namespace {

unsigned int SizeOf(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? static_cast<unsigned int>(status.st_size) : 0;
}

}  // namespace

SharedMemory::SharedMemory(const std::string& name, unsigned int size, unsigned int mode)
    : mAddress(MAP_FAILED), mSize(size) {
  if (!IsName(name)) {
    return;
  }
  mCreated = size != 0;
  const int flags = mCreated ? O_RDWR | O_CREAT | O_TRUNC : O_RDWR;
  internal::UniqueFd fd(::shm_open(name.c_str(), flags, mode));
  if (!fd.IsValid()) {
    return;
  }
  if (!mCreated) {
    mSize = SizeOf(fd.Get());
  } else if (::ftruncate(fd.Get(), static_cast<off_t>(size)) != 0) {
    return;
  }
  mAddress = ::mmap(nullptr, mSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0);
  if (mAddress != MAP_FAILED) {
    mFd = fd.Release();
  }
}

SharedMemory::SharedMemory(SharedMemory&& other) noexcept : mAddress(MAP_FAILED) { Swap(other); }

SharedMemory& SharedMemory::operator=(SharedMemory&& other) noexcept {
  if (this != &other) {
    Close();
    Swap(other);
  }
  return *this;
}

SharedMemory::~SharedMemory() { Close(); }

void SharedMemory::Close() {
  if (mAddress != MAP_FAILED) {
    (void)::munmap(mAddress, mSize);
    mAddress = MAP_FAILED;
  }
  internal::UniqueFd(std::exchange(mFd, -1)).Reset();
}

void SharedMemory::Swap(SharedMemory& other) noexcept {
  std::swap(mFd, other.mFd);
  std::swap(mAddress, other.mAddress);
  std::swap(mSize, other.mSize);
  std::swap(mCreated, other.mCreated);
}

bool SharedMemory::Remove(const std::string& name) { return IsName(name) && ::shm_unlink(name.c_str()) == 0; }

}  // namespace kiv::ipc
