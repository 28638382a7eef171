#include <kiv/net.h>

namespace kiv::net {

void Poller::Add(int fd, short events) {
  mEntries.push_back(pollfd{fd, events, 0});
  mIndex[fd] = mEntries.size() - 1;
}

void Poller::Modify(int fd, short events) {
  const auto found = mIndex.find(fd);
  if (found != mIndex.end()) {
    mEntries[found->second].events = events;
  }
}

void Poller::Remove(int fd) {
  const auto found = mIndex.find(fd);
  if (found == mIndex.end()) {
    return;
  }
  const std::size_t gap = found->second;
  mEntries[gap] = mEntries.back();
  mIndex[mEntries[gap].fd] = gap;
  mEntries.pop_back();
  mIndex.erase(fd);
}

int Poller::Wait(int timeout) {
  // With nothing to wait for, poll would sleep for the whole time-out, or for ever.
  if (mEntries.empty()) {
    return 0;
  }
  return ::poll(mEntries.data(), mEntries.size(), timeout);
}

bool Poller::IsReady(int fd, short events) const {
  const pollfd* entry = Find(fd);
  return entry != nullptr && (entry->revents & events) != 0;
}

const pollfd* Poller::Find(int fd) const {
  const auto found = mIndex.find(fd);
  return found == mIndex.end() ? nullptr : &mEntries[found->second];
}

}  // namespace kiv::net
