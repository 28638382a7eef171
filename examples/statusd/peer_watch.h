#ifndef STATUSD_PEER_WATCH_H
#define STATUSD_PEER_WATCH_H

#include <kiv/net.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "status.h"
#include "worker.h"

/// Fetches a page of the peer now and then and writes down how that went.
///
/// HttpClient blocks, so it works on a thread of its own. Everything public belongs to the loop thread. The destructor
/// takes as long as a connection attempt may, and no longer.
class PeerWatch {
 public:
  PeerWatch(kiv::net::EventLoop& loop, PeerStatus& status) : mStatus(status), mTarget(), mWorker(loop) {}
  PeerWatch(const PeerWatch&) = delete;
  PeerWatch& operator=(const PeerWatch&) = delete;
  ~PeerWatch();

  /// Starts the thread, before any fetch. Returns false with errno when that fails.
  bool Start() { return mWorker.Start(); }

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

  Result Get(const Job& job);
  bool Publish(int fd);
  void Record(const Result& result);
  void CutOff();

  PeerStatus& mStatus;
  Job mTarget;
  std::chrono::steady_clock::time_point mStarted;

  // Shared with the worker, under the mutex.
  std::mutex mMutex;
  int mFd = -1;  // The connection of the fetch under way.
  bool mQuit = false;

  Worker mWorker;  // The last member: its destructor waits for a fetch, which uses the others.
};

#endif  // STATUSD_PEER_WATCH_H
