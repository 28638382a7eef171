#include "reader.h"

#include <kiv/fs.h>
#include <kiv/ipc.h>
#include <kiv/process.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace {

constexpr unsigned int kMode = 0600;
constexpr std::chrono::milliseconds kPause(10);
constexpr std::chrono::seconds kPatience(1);

using Clock = std::chrono::steady_clock;

std::string NobodyPublishes(const std::string& name) { return "no statusd publishes at " + name; }

// Returns why memory or semaphore cannot be opened, by errno. Memory has no bytes (EINVAL) for a moment after it was
// made.
std::string ExplainMissing(const std::string& name) {
  const bool isAbsent = errno == ENOENT || errno == EINVAL;
  return isAbsent ? NobodyPublishes(name) : "cannot open " + name + ": " + std::strerror(errno);
}

// Returns what is wrong with the memory, or nothing. What is read here never changes, and needs no semaphore.
std::string Check(const std::string& name, const kiv::ipc::SharedMemory& memory) {
  if (memory.GetSize() != sizeof(SharedFigures)) {
    return name + " is not a statusd's: wrong size";
  }
  const auto& figures = *static_cast<const SharedFigures*>(memory.GetAddress());
  if (figures.magic == 0) {
    return NobodyPublishes(name);  // It has been made, and nothing has been written to it yet.
  }
  if (figures.magic != SharedFigures::kMagic) {
    return name + " is not a statusd's";
  }
  if (figures.version != SharedFigures::kVersion || figures.size != sizeof(SharedFigures)) {
    return name + " is from a statusd of another version";
  }
  if (!kiv::process::IsProcessAlive(figures.pid)) {
    return "the statusd that published at " + name + " (process " + std::to_string(figures.pid) + ") is gone";
  }
  return "";
}

// Where sem_overview(7) says that the semaphore is.
std::string SemaphoreFile(const std::string& name) { return "/dev/shm/sem." + name.substr(1); }

// Opening a semaphore makes one where there is none. That of a statusd that has ended since it was looked for is such a
// one, and nobody else would ever remove it.
kiv::ipc::Semaphore OpenSemaphore(const std::string& name) {
  if (!kiv::fs::Exists(SemaphoreFile(name))) {
    return {"", 0, 0};
  }
  kiv::ipc::Semaphore turn(name, 1, kMode);
  if (turn.IsValid() && !kiv::ipc::SharedMemory(name, 0, kMode).IsValid()) {
    (void)kiv::ipc::Semaphore::Remove(name);
    return {"", 0, 0};
  }
  return turn;
}

// Tells whether a semaphore can be touched: one that is cut short is SIGBUS.
bool IsWhole(const std::string& name) {
  const int size = kiv::fs::GetSize(SemaphoreFile(name));
  return size < 0 || size == static_cast<int>(sizeof(sem_t));
}

bool TakeTurn(kiv::ipc::Semaphore& turn) {
  const auto end = Clock::now() + kPatience;
  while (!turn.TryWait()) {
    if (Clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace

bool ReadFigures(const std::string& name, SharedFigures& out, std::string& error) {
  const kiv::ipc::SharedMemory memory(name, 0, kMode);
  error = memory.IsValid() ? Check(name, memory) : ExplainMissing(name);
  if (!error.empty()) {
    return false;
  }
  kiv::ipc::Semaphore turn = OpenSemaphore(name);
  if (!turn.IsValid()) {
    error = ExplainMissing(name);
    return false;
  }
  if (!IsWhole(name)) {
    error = "the semaphore " + name + " is not a statusd's";
    return false;
  }
  if (!TakeTurn(turn)) {
    error = "cannot get the semaphore " + name + ": another reader has it";
    return false;
  }
  std::memcpy(&out, memory.GetAddress(), sizeof out);
  (void)turn.Post();
  return true;
}
