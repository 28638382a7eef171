#include <kiv/net.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "internal/unique_fd.h"

namespace kiv::net {

EventHandler::~EventHandler() = default;

short EventHandler::GetEvents() { return POLLIN | POLLERR | POLLHUP; }

EventLoop::EventLoop() {
  mWakeupFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (mWakeupFd < 0) {
    std::abort();
  }
  mPoller.Add(mWakeupFd, POLLIN);
}

EventLoop::~EventLoop() {
  // Everything is taken out before it is destroyed, because the destructors of handlers and of what deferred calls
  // captured may still call this loop, and may add to what is being taken out.
  while (!mHandlers.empty()) {
    std::exchange(mHandlers, {}).clear();
  }
  internal::UniqueFd(std::exchange(mWakeupFd, -1)).Reset();
  while (!mDeferred.empty()) {
    std::exchange(mDeferred, {}).clear();
  }
}

void EventLoop::AddHandler(std::unique_ptr<EventHandler> handler) {
  if (handler == nullptr) {
    return;
  }
  const int fd = handler->GetFd();
  if (fd < 0) {
    return;
  }
  if (mHandlers.count(fd) != 0) {
    return;
  }
  mPoller.Add(fd, handler->GetEvents());
  mHandlers.emplace(fd, std::move(handler));
}

void EventLoop::UpdateHandler(int fd) {
  const auto found = mHandlers.find(fd);
  if (found != mHandlers.end()) {
    mPoller.Modify(fd, found->second->GetEvents());
  }
}

void EventLoop::RemoveHandler(int fd) {
  const auto found = mHandlers.find(fd);
  if (found == mHandlers.end()) {
    return;
  }
  const auto timer = mTimerFds.find(fd);
  if (timer != mTimerFds.end()) {
    mTimers.erase(timer->second);
    mTimerFds.erase(timer);
  }
  mPoller.Remove(fd);
  // The table is whole again before the destructor runs, which may call back into the loop.
  const std::unique_ptr<EventHandler> removed = std::move(found->second);
  mHandlers.erase(found);
}

void EventLoop::Run() {
  mRunning = true;
  while (mRunning) {
    ProcessDeferred();
    if (!mRunning) {
      break;
    }
    if (mPoller.Wait(-1) < 0 && errno != EINTR) {
      break;
    }
    // Deliberate: after EINTR too, with the results that the array holds then. Kernels that leave the array alone show
    // those of the previous wait once more; Linux has cleared them.
    ProcessEvents();
  }
  ProcessDeferred();
}

// The set may change while it is walked: handlers add and remove entries, and each removal moves the last entry. So the
// descriptors that are ready are noted first, in array order, and each is looked up again when its turn comes. One that
// was removed meanwhile is not found; one that was added in this pass, under an old number too, has no revents yet.
void EventLoop::ProcessEvents() {
  std::vector<int> ready;
  for (const pollfd& entry : mPoller.mEntries) {
    if (entry.revents != 0) {
      ready.push_back(entry.fd);
    }
  }
  for (const int fd : ready) {
    const pollfd* entry = mPoller.Find(fd);
    if (entry != nullptr && entry->revents != 0) {
      Dispatch(fd, entry->revents);
    }
  }
}

void EventLoop::Dispatch(int fd, short revents) {
  if (fd == mWakeupFd) {
    ProcessWakeup();
    return;
  }
  const auto found = mHandlers.find(fd);
  if (found != mHandlers.end()) {
    found->second->OnEvent(fd, revents);
  }
}

void EventLoop::ProcessWakeup() {
  std::uint64_t count = 0;
  // A failure means that the counter is zero already, which is all that is wanted.
  (void)!::read(mWakeupFd, &count, sizeof count);
}

void EventLoop::Defer(std::function<void()> call) {
  if (!call) {
    return;
  }
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mDeferred.push_back(std::move(call));
  }
  const std::uint64_t one = 1;
  // A full counter is the only failure, and then the loop is awake anyway.
  (void)!::write(mWakeupFd, &one, sizeof one);
}

void EventLoop::ProcessDeferred() {
  std::vector<std::function<void()>> batch;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mDeferred.empty()) {
      return;
    }
    batch.swap(mDeferred);
  }
  for (const std::function<void()>& call : batch) {
    call();
  }
}

void EventLoop::Stop() {
  Defer([this] { mRunning = false; });
}

unsigned EventLoop::AddTimer(Milliseconds duration, std::function<void()> callback) {
  return AddTimerHandler(duration, false, std::move(callback));
}

unsigned EventLoop::AddPeriodicTimer(Milliseconds duration, std::function<void()> callback) {
  return AddTimerHandler(duration, true, std::move(callback));
}

unsigned EventLoop::AddTimerHandler(Milliseconds duration, bool periodic, std::function<void()> callback) {
  if (!callback || duration.count() < 0) {
    return 0;
  }
  auto timer = std::make_unique<Timer>(duration, periodic, std::move(callback));
  const int fd = timer->GetFd();
  // Deliberate: descriptor 0 is refused as well. A daemon keeps 0 open, and an id must stand for a working timer.
  if (fd <= 0) {
    return 0;
  }
  const unsigned id = mNextTimerId++;
  mTimers[id] = fd;
  mTimerFds[fd] = id;
  AddHandler(std::move(timer));
  return id;
}

void EventLoop::RemoveTimer(unsigned id) {
  if (id == 0) {
    return;
  }
  const auto found = mTimers.find(id);
  if (found == mTimers.end()) {
    return;
  }
  const int fd = found->second;
  mTimers.erase(found);
  mTimerFds.erase(fd);
  RemoveHandler(fd);
}

void EventLoop::AddSignal(int signo, std::function<void(int)> callback) {
  if (mSignals.count(signo) != 0) {
    return;
  }
  auto handler = std::make_unique<SignalHandler>(signo, std::move(callback));
  const int fd = handler->GetFd();
  if (fd == -1) {
    return;
  }
  mSignals[signo] = fd;
  AddHandler(std::move(handler));
}

void EventLoop::RemoveSignal(int signo) {
  const auto found = mSignals.find(signo);
  if (found == mSignals.end()) {
    return;
  }
  // Deliberate: only here is the registration forgotten. RemoveHandler on the descriptor leaves it, and AddSignal then
  // refuses the signal until this function has been called.
  const int fd = found->second;
  RemoveHandler(fd);
  mSignals.erase(signo);
}

void EventLoop::BlockSignals(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signo : signals) {
    (void)sigaddset(&set, signo);  // A number that is no signal has no mask bit to set.
  }
  if (::sigprocmask(SIG_BLOCK, &set, nullptr) != 0) {
    std::abort();
  }
}

}  // namespace kiv::net
