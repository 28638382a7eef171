#include "network_watch.h"

#include <utility>

namespace {

// Of the time of one processor, snapshots may take one part in this many: they become rarer as the tables grow.
constexpr int kShare = 20;

}  // namespace

NetworkWatch::NetworkWatch(kiv::net::EventLoop& loop, NetworkStatus& status) : mStatus(status), mWorker(loop) {
  mStatus.tables = ToJson(Network(), Network());
}

void NetworkWatch::Look() {
  if (Clock::now() >= mNext) {
    (void)mWorker.Run([this] { return TakeSnapshot(); });  // A look that takes long stands for those it delays.
  }
}

void NetworkWatch::Record(const std::string& tables, Clock::duration took) {
  mNext = Clock::now() + took * (kShare - 1);
  if (tables.empty()) {
    return;  // The kernel could not be asked; what was seen last stays.
  }
  mStatus.tables = tables;
  mStatus.tookMs = std::chrono::duration<double, std::milli>(took).count();
  ++mStatus.snapshots;
}

// On the worker's thread.
std::function<void()> NetworkWatch::TakeSnapshot() {
  const auto started = Clock::now();
  std::string tables;
  std::optional<Network> now = ReadNetwork();
  if (now) {
    tables = ToJson(mBefore ? *mBefore : *now, *now);
    mBefore = std::move(now);
  }
  const auto took = Clock::now() - started;
  return [this, tables = std::move(tables), took] { Record(tables, took); };
}
