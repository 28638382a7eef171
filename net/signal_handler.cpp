#include <kiv/net.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "internal/outliving_callback.h"
#include "internal/unique_fd.h"

namespace kiv::net {

SignalHandler::SignalHandler(int signo, std::function<void(int)> callback)
    : mSigno(signo), mCallback(internal::OutlivingCallback(std::move(callback))) {
  sigset_t set;
  sigemptyset(&set);
  (void)sigaddset(&set, signo);  // A number that is no signal leaves the set empty, and the descriptor silent.
  // Deliberate: blocking. A read follows readiness on the one thread that reads, so there is always a record.
  mFd = ::signalfd(-1, &set, SFD_CLOEXEC);
  mValid = mFd >= 0;
}

SignalHandler::SignalHandler(SignalHandler&& other) noexcept
    : mFd(std::exchange(other.mFd, -1)),
      mSigno(other.mSigno),
      mCallback(std::move(other.mCallback)),
      mValid(std::exchange(other.mValid, false)) {}

SignalHandler& SignalHandler::operator=(SignalHandler&& other) noexcept {
  if (this != &other) {
    internal::UniqueFd(std::exchange(mFd, std::exchange(other.mFd, -1))).Reset();
    mSigno = other.mSigno;
    mCallback = std::move(other.mCallback);
    mValid = std::exchange(other.mValid, false);
  }
  return *this;
}

SignalHandler::~SignalHandler() { internal::UniqueFd(mFd).Reset(); }

void SignalHandler::OnEvent(int /*fd*/, short /*revents*/) {
  signalfd_siginfo record{};
  const ssize_t size = ::read(mFd, &record, sizeof record);
  if (size != static_cast<ssize_t>(sizeof record) || record.ssi_signo != static_cast<std::uint32_t>(mSigno)) {
    return;
  }
  if (mCallback) {
    mCallback(mSigno);  // Last: it may destroy this handler.
  }
}

int SignalHandler::GetFd() { return mFd; }

short SignalHandler::GetEvents() { return POLLIN; }

}  // namespace kiv::net
