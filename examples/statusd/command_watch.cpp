#include "command_watch.h"

#include <kiv/process.h>

#include <chrono>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kMaxOutput = 4096;
constexpr int kNotStarted = 127;

using Clock = std::chrono::steady_clock;

// timeout(1) sends SIGTERM after five seconds, and SIGKILL a second later, to the command and its children.
kiv::process::ExecResult RunToItsEnd(const Program& command) {
  std::vector<std::string> args = {"-k", "1", "5"};
  args.insert(args.end(), command.begin(), command.end());
  try {
    return kiv::process::ExecWaitCapture("timeout", args);
  } catch (const std::bad_alloc&) {
    return {"", kNotStarted};  // It wrote more than memory can hold.
  }
}

CommandRun RunOnce(const Program& command) {
  const auto started = Clock::now();
  kiv::process::ExecResult result = RunToItsEnd(command);
  const std::chrono::duration<double, std::milli> took = Clock::now() - started;
  return {result.exitCode, took.count(), result.output.substr(0, kMaxOutput), result.output.size() > kMaxOutput};
}

}  // namespace

CommandWatch::CommandWatch(kiv::net::EventLoop& loop, CommandStatus& status)
    : mStatus(status), mLink(std::make_shared<Link>()) {
  mLink->loop = &loop;
}

CommandWatch::~CommandWatch() {
  const std::lock_guard<std::mutex> lock(mLink->mutex);
  mLink->loop = nullptr;
}

void CommandWatch::Watch(const Program& command) {
  if (command == mCommand) {
    return;
  }
  mCommand = command;
  mStatus = CommandStatus();
  mStatus.line = ToText(command);
  Run();
}

void CommandWatch::Run() {
  if (mCommand.empty() || mUnderWay) {
    return;
  }
  // The thread may outlive this object, and uses nothing of it.
  const auto work = [this, link = mLink, command = mCommand] {
    const CommandRun run = RunOnce(command);
    Report(*link, [this, command, run] { Record(command, run); });
  };
  try {
    std::thread(work).detach();
    mUnderWay = true;
  } catch (const std::system_error&) {
    // There can be no more threads now; there will be another try.
  }
}

void CommandWatch::Report(Link& link, const std::function<void()>& takeIn) {
  const std::lock_guard<std::mutex> lock(link.mutex);
  if (link.loop != nullptr) {
    link.loop->Defer(takeIn);
  }
}

void CommandWatch::Record(const Program& command, const CommandRun& run) {
  mUnderWay = false;
  if (command != mCommand) {
    Run();  // The settings have changed meanwhile, and what is new has waited for this.
    return;
  }
  ++mStatus.runs;
  mStatus.last = run;
}
