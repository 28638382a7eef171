#ifndef STATUSD_NETWORK_WATCH_H
#define STATUSD_NETWORK_WATCH_H

#include <kiv/net.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "network.h"
#include "status.h"
#include "worker.h"

/// Takes snapshots of the network and writes down what changes from one to the next.
///
/// A table of 100,000 routes takes a tenth of a second to read, and more on a small device, so a thread of its own does
/// that. Everything public belongs to the loop thread. The destructor waits for the snapshot under way.
class NetworkWatch {
 public:
  NetworkWatch(kiv::net::EventLoop& loop, NetworkStatus& status);
  NetworkWatch(const NetworkWatch&) = delete;
  NetworkWatch& operator=(const NetworkWatch&) = delete;

  /// Starts the thread, before any look. Returns false with errno when that fails.
  bool Start() { return mWorker.Start(); }

  /// Starts a snapshot, unless one is under way or the last one was too costly to do it again so soon. To be called
  /// once a second.
  void Look();

 private:
  using Clock = std::chrono::steady_clock;

  std::function<void()> TakeSnapshot();
  void Record(const std::string& tables, Clock::duration took);

  NetworkStatus& mStatus;
  Clock::time_point mNext;
  std::optional<Network> mBefore;  // Only the worker's.
  Worker mWorker;                  // The last member: its destructor waits for a snapshot, which uses the others.
};

#endif  // STATUSD_NETWORK_WATCH_H
