#include "machine_watch.h"

#include <utility>

MachineWatch::MachineWatch(kiv::net::EventLoop& loop, std::string& figures) : mFigures(figures), mWorker(loop) {
  mFigures = mMachine.ToJson();
}

void MachineWatch::Look() {
  (void)mWorker.Run([this] { return TakeSample(); });  // While a sample is being taken, there is no other.
}

// On the worker's thread.
std::function<void()> MachineWatch::TakeSample() {
  mMachine.Add(ReadMachine());
  return [this, figures = mMachine.ToJson()]() mutable { mFigures = std::move(figures); };
}
