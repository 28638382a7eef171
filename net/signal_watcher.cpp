#include <kiv/net.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <utility>

#include "internal/outliving_callback.h"
#include "internal/unique_fd.h"

namespace kiv::net {

SignalWatcher::SignalWatcher() noexcept { sigemptyset(&mSavedMask); }

SignalWatcher::SignalWatcher(Poller& poller, int signo) : SignalWatcher() {
  mPoller = &poller;
  mSigno = signo;
  sigset_t set;
  sigemptyset(&set);
  (void)sigaddset(&set, signo);  // A number that is no signal leaves the set empty, and the descriptor silent.
  if (::sigprocmask(SIG_BLOCK, &set, &mSavedMask) != 0) {
    return;
  }
  mFd = ::signalfd(-1, &set, SFD_CLOEXEC);
  if (mFd < 0) {
    (void)::sigprocmask(SIG_SETMASK, &mSavedMask, nullptr);
    return;
  }
  poller.Add(mFd, POLLIN);
  mValid = true;
}

SignalWatcher::SignalWatcher(Poller& poller, int signo, std::function<void(int)> callback)
    : SignalWatcher(poller, signo) {
  if (mValid) {
    mCallback = internal::OutlivingCallback(std::move(callback));
  }
}

SignalWatcher::SignalWatcher(SignalWatcher&& other) noexcept : SignalWatcher() { Swap(other); }

SignalWatcher& SignalWatcher::operator=(SignalWatcher&& other) noexcept {
  if (this == &other) {
    return *this;
  }
  if (mValid && mPoller != nullptr) {
    mPoller->Remove(mFd);
  }
  Swap(other);
  return *this;
}

SignalWatcher::~SignalWatcher() {
  if (mValid) {
    if (mPoller != nullptr) {
      mPoller->Remove(mFd);
    }
    // Deliberate: the whole mask of before, not only this signal, which may have been blocked already.
    (void)::sigprocmask(SIG_SETMASK, &mSavedMask, nullptr);
  }
  mCallback = nullptr;
  internal::UniqueFd(mFd).Reset();
}

int SignalWatcher::ReadSignal() {
  if (!mValid) {
    return -1;
  }
  signalfd_siginfo record{};
  if (::read(mFd, &record, sizeof record) != static_cast<ssize_t>(sizeof record)) {
    return -1;
  }
  return static_cast<int>(record.ssi_signo);
}

bool SignalWatcher::Handle() {
  const int signo = ReadSignal();
  if (signo != -1 && mCallback) {
    mCallback(signo);  // Last: it may destroy this watcher.
  }
  return true;
}

void SignalWatcher::Swap(SignalWatcher& other) {
  std::swap(mFd, other.mFd);
  std::swap(mSavedMask, other.mSavedMask);
  std::swap(mPoller, other.mPoller);
  std::swap(mSigno, other.mSigno);
  std::swap(mValid, other.mValid);
  // Deliberate: the callbacks stay where they are. A callback usually captures the object that holds the watcher, so
  // it must not come along when the watcher moves to another.
}

}  // namespace kiv::net
