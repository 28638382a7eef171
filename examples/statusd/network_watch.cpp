#include "network_watch.h"

#include <utility>

namespace {

// Of the time of one processor, snapshots may take one part in this many: they become rarer as the tables grow.
constexpr int kShare = 20;

}  // namespace

NetworkWatch::NetworkWatch(kiv::net::EventLoop& loop, NetworkStatus& status)
    : mLoop(loop), mStatus(status), mWorker([this] { Work(); }) {
  mStatus.tables = ToJson(Network(), Network());
}

NetworkWatch::~NetworkWatch() {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mQuit = true;
  }
  mWake.notify_one();
  mWorker.join();
}

void NetworkWatch::Look() {
  if (mUnderWay || Clock::now() < mNext) {
    return;
  }
  mUnderWay = true;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mWanted = true;
  }
  mWake.notify_one();
}

void NetworkWatch::Record(const std::string& tables, Clock::duration took) {
  mUnderWay = false;
  mNext = Clock::now() + took * (kShare - 1);
  if (tables.empty()) {
    return;  // The kernel could not be asked; what was seen last stays.
  }
  mStatus.tables = tables;
  mStatus.tookMs = std::chrono::duration<double, std::milli>(took).count();
  ++mStatus.snapshots;
}

// The worker thread.
void NetworkWatch::Work() {
  std::unique_lock<std::mutex> lock(mMutex);
  for (;;) {
    mWake.wait(lock, [this] { return mQuit || mWanted; });
    if (mQuit) {
      return;
    }
    mWanted = false;
    lock.unlock();
    TakeSnapshot();
    lock.lock();
  }
}

void NetworkWatch::TakeSnapshot() {
  const auto started = Clock::now();
  std::string tables;
  std::optional<Network> now = ReadNetwork();
  if (now) {
    tables = ToJson(mBefore ? *mBefore : *now, *now);
    mBefore = std::move(now);
  }
  const auto took = Clock::now() - started;
  mLoop.Defer([this, tables = std::move(tables), took] { Record(tables, took); });
}
