#include <fcntl.h>
#include <kiv/ipc.h>

#include <cerrno>
#include <utility>

#include "ipc/name.h"

namespace kiv::ipc {
namespace {

// The handle, or null, which is what the members above hold for none; SEM_FAILED is null on Linux and need not be.
sem_t* HandleOf(sem_t* opened) { return opened == SEM_FAILED ? nullptr : opened; }

}  // namespace

Semaphore::Semaphore(const std::string& name, unsigned int value, unsigned int mode) : mName(name) {
  if (!IsName(name)) {
    return;
  }
  mHandle = HandleOf(::sem_open(name.c_str(), O_CREAT | O_EXCL, static_cast<mode_t>(mode), value));
  if (mHandle == nullptr && errno == EEXIST) {
    mHandle = HandleOf(::sem_open(name.c_str(), O_RDWR));
  }
}

Semaphore::Semaphore(Semaphore&& other) noexcept { Swap(other); }

Semaphore& Semaphore::operator=(Semaphore&& other) noexcept {
  if (this != &other) {
    // The handle is forgotten when it is closed: the source gets what is left here, and its destructor must not close
    // once more what another Semaphore of this process may have open.
    if (sem_t* const old = std::exchange(mHandle, nullptr)) {
      (void)::sem_close(old);
    }
    Swap(other);
  }
  return *this;
}

Semaphore::~Semaphore() {
  if (mHandle != nullptr) {
    (void)::sem_close(mHandle);
  }
}

bool Semaphore::Wait() { return mHandle != nullptr && ::sem_wait(mHandle) == 0; }

bool Semaphore::TryWait() { return mHandle != nullptr && ::sem_trywait(mHandle) == 0; }

bool Semaphore::Post() { return mHandle != nullptr && ::sem_post(mHandle) == 0; }

void Semaphore::Swap(Semaphore& other) noexcept {
  std::swap(mHandle, other.mHandle);
  mName.swap(other.mName);
}

bool Semaphore::Remove(const std::string& name) { return IsName(name) && ::sem_unlink(name.c_str()) == 0; }

}  // namespace kiv::ipc
