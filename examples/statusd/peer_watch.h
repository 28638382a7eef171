#ifndef STATUSD_PEER_WATCH_H
#define STATUSD_PEER_WATCH_H

#include <kiv/net.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "status.h"

/// Fetches a page of the peer now and then and writes down how that went.
///
/// HttpClient blocks, so it works on a thread of its own; its results come back to the loop thread by Defer. Everything
/// public belongs to the loop thread. The destructor takes as long as a connection attempt may, and no longer.
class PeerWatch {
 public:
  PeerWatch(kiv::net::EventLoop& loop, PeerStatus& status);
  PeerWatch(const PeerWatch&) = delete;
  PeerWatch& operator=(const PeerWatch&) = delete;
  ~PeerWatch();

  /// Sets what to fetch (nothing when `url` is empty) and what time is too long. A new URL starts a new history.
  void Watch(const std::string& url, kiv::net::Milliseconds timeout, kiv::net::Milliseconds slow);

  /// Starts a fetch, unless one is under way.
  void Fetch();

  /// Cuts off a fetch that takes too long. To be called a few times a second.
  void Sweep();

 private:
  struct Job {
    std::string url;
    kiv::net::Milliseconds timeout;
    kiv::net::Milliseconds slow;
  };
  struct Result {
    std::string url;
    const char* state;
    int httpStatus;
    std::optional<double> responseMs;
  };

  void Work();
  Result Run(const Job& job);
  bool Publish(int fd);
  void Record(const Result& result);
  void CutOff();

  kiv::net::EventLoop& mLoop;
  PeerStatus& mStatus;
  Job mTarget;
  bool mUnderWay = false;
  std::chrono::steady_clock::time_point mStarted;

  // Shared with the worker, under the mutex.
  std::mutex mMutex;
  std::condition_variable mWake;
  std::optional<Job> mJob;
  int mFd = -1;  // The connection of the fetch under way.
  bool mQuit = false;

  std::thread mWorker;
};

#endif  // STATUSD_PEER_WATCH_H
