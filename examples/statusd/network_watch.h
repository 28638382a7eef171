#ifndef STATUSD_NETWORK_WATCH_H
#define STATUSD_NETWORK_WATCH_H

#include <kiv/net.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "network.h"
#include "status.h"

/// Takes snapshots of the network and writes down what changes from one to the next.
///
/// A table of 100,000 routes takes a tenth of a second to read, and more on a small device, so a thread of its own does
/// that; the text for /status.json comes back to the loop thread by Defer. Everything public belongs to the loop
/// thread. The destructor waits for the snapshot under way.
class NetworkWatch {
 public:
  NetworkWatch(kiv::net::EventLoop& loop, NetworkStatus& status);
  NetworkWatch(const NetworkWatch&) = delete;
  NetworkWatch& operator=(const NetworkWatch&) = delete;
  ~NetworkWatch();

  /// Starts a snapshot, unless one is under way or the last one was too costly to do it again so soon. To be called
  /// once a second.
  void Look();

 private:
  using Clock = std::chrono::steady_clock;

  void Work();
  void TakeSnapshot();
  void Record(const std::string& tables, Clock::duration took);

  kiv::net::EventLoop& mLoop;
  NetworkStatus& mStatus;
  bool mUnderWay = false;
  Clock::time_point mNext;

  // Only the worker's.
  std::optional<Network> mBefore;

  // Shared with the worker, under the mutex.
  std::mutex mMutex;
  std::condition_variable mWake;
  bool mWanted = false;
  bool mQuit = false;

  std::thread mWorker;
};

#endif  // STATUSD_NETWORK_WATCH_H
