#ifndef STATUSD_WORKER_H
#define STATUSD_WORKER_H

#include <kiv/net.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

/// Runs jobs, one at a time, on a thread of its own, so that what blocks does not hold up the loop. Everything public
/// belongs to the loop thread.
///
/// The thread begins with Start and not with the object: a daemon first does as root what only root may do.
class Worker {
 public:
  /// Does its work on the worker thread, and returns what is left to do with the result on the loop thread.
  using Job = std::function<std::function<void()>()>;

  explicit Worker(kiv::net::EventLoop& loop) : mLoop(loop) {}
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// Waits for the end of the job under way.
  ~Worker();

  /// Starts the thread. Call it once. Returns false with errno when there can be no more threads.
  bool Start();

  /// Hands over a job. Returns false, and does nothing, while the one before is under way.
  bool Run(Job job);

  /// Tells whether a job is under way: it is until its result has been taken in on the loop thread.
  bool IsBusy() const { return mBusy; }

 private:
  void Work();

  kiv::net::EventLoop& mLoop;
  bool mBusy = false;

  // Shared with the thread, under the mutex.
  std::mutex mMutex;
  std::condition_variable mWake;
  Job mJob;
  bool mQuit = false;

  std::thread mThread;
};

#endif  // STATUSD_WORKER_H
