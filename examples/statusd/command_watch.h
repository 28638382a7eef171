#ifndef STATUSD_COMMAND_WATCH_H
#define STATUSD_COMMAND_WATCH_H

#include <kiv/net.h>

#include <functional>
#include <memory>
#include <mutex>

#include "settings.h"
#include "status.h"

/// Runs a command now and then and writes down how that ended.
///
/// ExecWaitCapture blocks for as long as anything that the command left behind holds its output, and nothing can end
/// it. So each run has a thread that nobody ever waits for, and that shares with this object no more than a way to
/// report, which the destructor cuts. Everything public belongs to the loop thread.
class CommandWatch {
 public:
  CommandWatch(kiv::net::EventLoop& loop, CommandStatus& status);
  CommandWatch(const CommandWatch&) = delete;
  CommandWatch& operator=(const CommandWatch&) = delete;
  ~CommandWatch();

  /// Sets what to run. What is new begins at once, or when the run under way has ended.
  void Watch(const Program& command);

  /// Starts a run, unless there is nothing to run or the run before is under way.
  void Run();

 private:
  // What a thread keeps when this object is gone.
  struct Link {
    std::mutex mutex;
    kiv::net::EventLoop* loop;  // Null when nobody wants to hear of the run any more.
  };

  static void Report(Link& link, const std::function<void()>& takeIn);
  void Record(const Program& command, const CommandRun& run);

  CommandStatus& mStatus;
  Program mCommand;
  bool mUnderWay = false;
  std::shared_ptr<Link> mLink;
};

#endif  // STATUSD_COMMAND_WATCH_H
