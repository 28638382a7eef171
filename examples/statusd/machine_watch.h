#ifndef STATUSD_MACHINE_WATCH_H
#define STATUSD_MACHINE_WATCH_H

#include <kiv/net.h>

#include <functional>
#include <string>

#include "machine.h"
#include "worker.h"

/// Looks at the machine's figures and keeps them as JSON. Everything public belongs to the loop thread; the reading is
/// done by a thread of its own, since a machine may have thousands of interfaces.
class MachineWatch {
 public:
  MachineWatch(kiv::net::EventLoop& loop, std::string& figures);
  MachineWatch(const MachineWatch&) = delete;
  MachineWatch& operator=(const MachineWatch&) = delete;

  /// Starts the thread, before any look. Returns false with errno when that fails.
  bool Start() { return mWorker.Start(); }

  /// Takes a sample, unless one is under way. To be called once a second.
  void Look();

 private:
  std::function<void()> TakeSample();

  std::string& mFigures;
  Machine mMachine;  // Only the worker's.
  Worker mWorker;    // The last member: its destructor waits for a sample, which uses the others.
};

#endif  // STATUSD_MACHINE_WATCH_H
