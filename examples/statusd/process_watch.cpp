#include "process_watch.h"

#include <kiv/process.h>

#include <algorithm>
#include <iterator>

namespace {

constexpr std::size_t kMaxPids = 32;

}  // namespace

void ProcessWatch::Watch(const std::vector<Watched>& watched, kiv::net::Milliseconds restartDelay) {
  std::vector<ProcessStatus> status;
  for (const Watched& process : watched) {
    const ProcessStatus* const known = Find(process.name);
    status.push_back(known != nullptr ? *known : ProcessStatus());
    status.back().name = process.name;
    status.back().command = ToText(process.program);
  }
  mStatus = status;
  mWatched = watched;
  mRestartDelay = restartDelay;
}

void ProcessWatch::Look() {
  if (mWatched.empty()) {
    return;
  }
  std::vector<Watched> watched = mWatched;
  for (Watched& process : watched) {
    if (!MayStart(process.name)) {
      process.program.clear();
    }
  }
  (void)mWorker.Run([this, watched]() -> std::function<void()> {
    std::vector<Found> found;
    std::transform(watched.begin(), watched.end(), std::back_inserter(found), LookUp);
    return [this, found] { Record(found); };
  });
}

// On the worker's thread.
ProcessWatch::Found ProcessWatch::LookUp(const Watched& watched) {
  Found found{watched.name, kiv::process::GetPidsOf(watched.name), false};
  if (found.pids.empty() && !watched.program.empty()) {
    const Program& program = watched.program;
    // Whether it runs is for the next look to see.
    found.started = kiv::process::StartProcessDetached(program.front(), {program.begin() + 1, program.end()});
  }
  return found;
}

ProcessStatus* ProcessWatch::Find(const std::string& name) {
  const auto isIt = [&name](const ProcessStatus& process) { return process.name == name; };
  const auto found = std::find_if(mStatus.begin(), mStatus.end(), isIt);
  return found != mStatus.end() ? &*found : nullptr;
}

bool ProcessWatch::MayStart(const std::string& name) {
  const ProcessStatus* const process = Find(name);
  return !process->lastStart || Clock::now() - *process->lastStart >= mRestartDelay;
}

void ProcessWatch::Record(const std::vector<Found>& found) {
  for (const Found& one : found) {
    ProcessStatus* const process = Find(one.name);
    if (process == nullptr) {
      continue;  // The settings have changed meanwhile.
    }
    process->count = one.pids.size();
    process->pids.assign(one.pids.begin(),
                         one.pids.begin() + static_cast<std::ptrdiff_t>(std::min(one.pids.size(), kMaxPids)));
    if (one.started) {
      ++process->starts;
      process->lastStart = Clock::now();
    }
  }
}
