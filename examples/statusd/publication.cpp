#include "publication.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "common/shared_figures.h"

namespace {

constexpr unsigned int kMode = 0600;
constexpr int kMaxFailures = 5;

long long MonotonicMs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void SetPeer(const PeerStatus& peer, SharedFigures& out) {
  SetText(out.peerState, peer.state);
  out.peerHttpStatus = peer.httpStatus;
  out.peerResponseUs = peer.responseMs ? static_cast<std::int64_t>(*peer.responseMs * 1000) : -1;
}

void SetProcesses(const std::vector<ProcessStatus>& processes, SharedFigures& out) {
  out.processCount = static_cast<std::uint32_t>(std::min(processes.size(), SharedFigures::kMaxProcesses));
  for (std::size_t i = 0; i < out.processCount; ++i) {
    SetText(out.processes[i].name, processes[i].name);
    out.processes[i].count = static_cast<std::uint32_t>(processes[i].count);
  }
}

void SetCommand(const CommandStatus& command, SharedFigures& out) {
  out.commandIsSet = command.line.empty() ? 0 : 1;
  out.commandRuns = command.runs;
  out.commandExitCode = command.last ? command.last->exitCode : -1;
  SetText(out.commandOutput, command.last ? command.last->output : "");
}

SharedFigures ToFigures(const Status& status, const std::string& url) {
  SharedFigures figures{};
  figures.magic = SharedFigures::kMagic;
  figures.version = SharedFigures::kVersion;
  figures.size = sizeof figures;
  figures.pid = ::getpid();
  figures.published = status.share.published;
  figures.publishedMs = MonotonicMs();
  figures.uptimeSeconds = UptimeSeconds(status);
  figures.loopPasses = status.loopPasses;
  figures.timersFired = status.timersFired;
  figures.requests = status.requests;
  figures.clients = status.clients;
  SetText(figures.name, status.name);
  SetText(figures.url, url);
  SetPeer(status.peer, figures);
  SetProcesses(status.processes, figures);
  SetCommand(status.command, figures);
  return figures;
}

// Nothing there is as good as removed.
template <typename Object>
bool RemoveObject(const std::string& name) {
  return Object::Remove(name) || errno == ENOENT;
}

// Memory first: a reader that finds none touches no semaphore.
bool RemoveBoth(const std::string& name) {
  return RemoveObject<kiv::ipc::SharedMemory>(name) && RemoveObject<kiv::ipc::Semaphore>(name);
}

// Memory is allocated when it is written for the first time; when there is none then, that is SIGBUS. Not asked of
// kiv::fs::HasEnoughSpace, which counts in 32 bits: a large machine has more than that.
bool HasRoom() {
  struct statvfs space {};
  const bool isLimited = ::statvfs("/dev/shm", &space) == 0 && space.f_blocks != 0;
  return !isLimited || space.f_bavail >= 2;
}

// Tells whether a statusd that was started later has taken the name over.
bool IsAnothers(const std::string& name) {
  const kiv::ipc::SharedMemory memory(name, 0, 0);
  return memory.IsValid() && memory.GetSize() >= sizeof(SharedFigures) &&
         static_cast<const SharedFigures*>(memory.GetAddress())->pid != ::getpid();
}

}  // namespace

Publication::~Publication() { Withdraw(); }

bool Publication::Open(const std::string& name) {
  Withdraw();
  mStatus = ShareStatus();
  mStatus.name = name;
  return name.empty() || Make();
}

void Publication::Publish(const Status& status, const std::string& url) {
  if (mStatus.name.empty()) {
    return;
  }
  if (!TakeTurn()) {
    ++mStatus.skipped;
    return;
  }
  ++mStatus.published;
  const SharedFigures figures = ToFigures(status, url);
  std::memcpy(mMemory.GetAddress(), &figures, sizeof figures);
  (void)mTurn.Post();
}

// What a reader takes a moment for is not taken for seconds: it died with the semaphore, and that is lost.
bool Publication::TakeTurn() {
  if (mTurn.TryWait()) {
    mFailures = 0;
    return true;
  }
  return ++mFailures >= kMaxFailures && Make() && mTurn.TryWait();
}

// Both names are removed and not used again: readers keep the old objects, which nobody cuts short under them, and what
// a killed daemon or reader left of the semaphore's count is gone. The semaphore comes first, so that it is there for
// whoever finds the memory.
bool Publication::Make() {
  Close();
  if (!RemoveBoth(mStatus.name)) {
    return false;
  }
  if (!HasRoom()) {
    errno = ENOSPC;
    return false;
  }
  mTurn = kiv::ipc::Semaphore(mStatus.name, 1, kMode);
  mMemory = kiv::ipc::SharedMemory(mStatus.name, sizeof(SharedFigures), kMode);
  if (!mTurn.IsValid() || !mMemory.IsValid()) {
    const int reason = errno;
    Close();
    errno = reason;
    return false;
  }
  static_cast<SharedFigures*>(mMemory.GetAddress())->pid = ::getpid();  // Whose it is can be seen from the beginning.
  return true;
}

void Publication::Close() {
  mFailures = 0;
  mMemory.Close();
  mTurn = kiv::ipc::Semaphore("", 0, 0);
}

void Publication::Withdraw() {
  Close();
  if (!mStatus.name.empty() && !IsAnothers(mStatus.name)) {
    (void)RemoveBoth(mStatus.name);
  }
}
