#include "worker.h"

#include <cerrno>
#include <system_error>
#include <utility>

Worker::~Worker() {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mQuit = true;
  }
  mWake.notify_one();
  if (mThread.joinable()) {
    mThread.join();
  }
}

bool Worker::Start() {
  try {
    mThread = std::thread([this] { Work(); });
  } catch (const std::system_error& failure) {
    errno = failure.code().value();
    return false;
  }
  return true;
}

bool Worker::Run(Job job) {
  if (mBusy) {
    return false;
  }
  mBusy = true;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mJob = std::move(job);
  }
  mWake.notify_one();
  return true;
}

void Worker::Work() {
  std::unique_lock<std::mutex> lock(mMutex);
  for (;;) {
    mWake.wait(lock, [this] { return mQuit || mJob; });
    if (mQuit) {
      return;
    }
    const Job job = std::exchange(mJob, nullptr);
    lock.unlock();
    mLoop.Defer([this, takeIn = job()] {
      mBusy = false;
      takeIn();
    });
    lock.lock();
  }
}
