#ifndef STATUSD_PROCESS_WATCH_H
#define STATUSD_PROCESS_WATCH_H

#include <kiv/net.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "settings.h"
#include "status.h"
#include "worker.h"

/// Looks for processes by their short name, and starts a program where there is none.
///
/// Each look reads the name of every process of the machine, and starting a program takes a fork, so a thread of its
/// own does both. Everything public belongs to the loop thread. The destructor waits for the look under way; what was
/// started lives on.
class ProcessWatch {
 public:
  ProcessWatch(kiv::net::EventLoop& loop, std::vector<ProcessStatus>& status) : mStatus(status), mWorker(loop) {}
  ProcessWatch(const ProcessWatch&) = delete;
  ProcessWatch& operator=(const ProcessWatch&) = delete;

  /// Starts the thread, before any look. Returns false with errno when that fails.
  bool Start() { return mWorker.Start(); }

  /// Sets what to look for, and how long to wait from one start of a program to its next. What is known of names that
  /// stay is kept.
  void Watch(const std::vector<Watched>& watched, kiv::net::Milliseconds restartDelay);

  /// Looks once, unless a look is under way. To be called once a second.
  void Look();

 private:
  using Clock = std::chrono::steady_clock;
  struct Found {
    std::string name;
    std::vector<int> pids;
    bool started;
  };

  static Found LookUp(const Watched& watched);
  ProcessStatus* Find(const std::string& name);
  bool MayStart(const std::string& name);
  void Record(const std::vector<Found>& found);

  std::vector<ProcessStatus>& mStatus;
  std::vector<Watched> mWatched;
  kiv::net::Milliseconds mRestartDelay{5000};
  Worker mWorker;
};

#endif  // STATUSD_PROCESS_WATCH_H
