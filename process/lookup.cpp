#include <fcntl.h>
#include <kiv/fs.h>
#include <kiv/process.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "internal/unique_dir.h"
#include "internal/unique_fd.h"
#include "process/pid_text.h"

namespace kiv::process {
namespace {

constexpr std::size_t kMaxName = 15;

// Calls `visit` with the id and name of every process that has a name.
template <typename Visitor>
void ForEachProcess(const Visitor& visit) {
  internal::UniqueDir processes("/proc");
  if (!processes.IsValid()) {
    return;
  }
  while (const char* const entry = processes.Next()) {
    if (std::strcmp(entry, ".") == 0 || std::strcmp(entry, "..") == 0) {
      continue;
    }
    const int pid = PidOfProcEntry(fs::Basename(std::string("/proc/") + entry));
    if (pid < 1) {
      continue;
    }
    const std::string name = GetProcessName(pid);
    if (!name.empty()) {
      visit(pid, name);
    }
  }
}

}  // namespace

std::string GetProcessName(int pid) {
  char path[32];
  (void)std::snprintf(path, sizeof path, "/proc/%d/comm", pid);
  internal::UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.IsValid()) {
    return {};
  }
  // Deliberate: 15 bytes and no more. Of a name that long the newline behind it is never read, and a newline that is
  // its last byte is taken for that one.
  char name[kMaxName];
  const ssize_t size = ::read(fd.Get(), name, sizeof name);
  fd.Reset();
  if (size <= 0) {
    return {};
  }
  const bool hasNewline = name[size - 1] == '\n';
  return {name, static_cast<std::size_t>(size) - (hasNewline ? 1 : 0)};
}

std::string GetParentName() { return GetProcessName(::getppid()); }

std::vector<int> GetPidsOf(const std::string& name) {
  std::vector<int> pids;
  if (name.empty()) {
    return pids;
  }
  ForEachProcess([&](int pid, const std::string& found) {
    if (found == name) {
      pids.push_back(pid);
    }
  });
  return pids;
}

bool KillByName(const std::vector<std::string>& names, int signal) {
  // Deliberate: nothing to kill counts as success.
  if (names.empty()) {
    return true;
  }
  bool signalled = false;
  ForEachProcess([&](int pid, const std::string& name) {
    if (std::find(names.begin(), names.end(), name) != names.end() && ::kill(pid, signal) == 0) {
      signalled = true;
    }
  });
  return signalled;
}

bool IsProcessAlive(int pid) {
  if (pid < 1) {
    return false;
  }
  // EPERM: there is a process, and it is somebody else's.
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

}  // namespace kiv::process
