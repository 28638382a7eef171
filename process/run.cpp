#include <fcntl.h>
#include <kiv/process.h>
#include <unistd.h>

#include <cerrno>

#include "internal/unique_fd.h"
#include "process/child.h"
#include "process/exit_status.h"

namespace kiv::process {
namespace {

constexpr std::size_t kChunkSize = 4096;
constexpr mode_t kOutputMode = 0644;

// Waits for the end of a child, whatever signals come meanwhile. Returns false when that cannot be learned.
bool Reap(pid_t child, int& status) {
  pid_t reaped = -1;
  do {
    reaped = ::waitpid(child, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  return reaped == child;
}

int ReapExitCode(pid_t child) {
  int status = 0;
  return Reap(child, status) ? ExitCodeOf(status) : kNotStarted;
}

int OpenOutput(const std::string& file) {
  return file.empty() ? ::open("/dev/null", O_WRONLY | O_CLOEXEC)
                      : ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kOutputMode);
}

[[noreturn]] void RunWithFiles(const std::string& path, const std::vector<std::string>& args,
                               const std::string& stdoutFile, const std::string& stderrFile) {
  // Deliberate: the program has no standard input at all, so that one that reads it fails at once instead of waiting.
  // The first file gets this number, and frees it again below.
  (void)::close(STDIN_FILENO);
  internal::UniqueFd out(OpenOutput(stdoutFile));
  internal::UniqueFd err(OpenOutput(stderrFile));
  if (!out.IsValid() || !err.IsValid()) {
    out.Reset();
    err.Reset();
    ::_exit(kNotStarted);
  }
  (void)::dup2(out.Get(), STDOUT_FILENO);
  (void)::dup2(err.Get(), STDERR_FILENO);
  out.Reset();
  err.Reset();
  ExecChild(path, args);
}

[[noreturn]] void RunWithPipe(const std::string& path, const std::vector<std::string>& args,
                              internal::UniqueFd& readEnd, internal::UniqueFd& writeEnd) {
  (void)::close(STDIN_FILENO);  // Deliberate: no standard input, as above.
  readEnd.Reset();
  (void)::dup2(writeEnd.Get(), STDOUT_FILENO);
  (void)::dup2(writeEnd.Get(), STDERR_FILENO);
  writeEnd.Reset();
  ExecChild(path, args);
}

[[noreturn]] void RunDetached(const std::string& path, const std::vector<std::string>& args) {
  if (::setsid() < 0) {
    ::_exit(1);
  }
  const pid_t grandchild = ::fork();
  if (grandchild != 0) {
    ::_exit(grandchild < 0 ? 1 : 0);
  }
  internal::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (null.IsValid()) {
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      (void)::dup2(null.Get(), standard);
    }
    if (null.Get() > STDERR_FILENO) {
      null.Reset();
    }
  }
  ExecChild(path, args);
}

// Deliberate: a read is not repeated after a signal, so a signal handler can end a collection that takes too long.
void ReadAll(int fd, std::string& output) {
  char chunk[kChunkSize];
  for (;;) {
    const ssize_t size = ::read(fd, chunk, sizeof chunk);
    if (size < 1) {
      return;
    }
    output.append(chunk, static_cast<std::size_t>(size));
  }
}

}  // namespace

ExecResult ExecWait(const std::string& path, const std::vector<std::string>& args, const std::string& stdoutFile,
                    const std::string& stderrFile) {
  const pid_t child = ::fork();
  if (child < 0) {
    return {"", kNotStarted};
  }
  if (child == 0) {
    RunWithFiles(path, args, stdoutFile, stderrFile);
  }
  return {"", ReapExitCode(child)};
}

ExecResult ExecWaitCapture(const std::string& path, const std::vector<std::string>& args) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    return {"", kNotStarted};
  }
  internal::UniqueFd readEnd(fds[0]);
  internal::UniqueFd writeEnd(fds[1]);
  const pid_t child = ::fork();
  if (child < 0) {
    return {"", kNotStarted};
  }
  if (child == 0) {
    RunWithPipe(path, args, readEnd, writeEnd);
  }
  writeEnd.Reset();
  ExecResult result{"", kNotStarted};
  try {
    ReadAll(readEnd.Get(), result.output);
  } catch (...) {
    // More than memory can hold. The program's end is awaited all the same; its next write meets a closed pipe.
    readEnd.Reset();
    (void)ReapExitCode(child);
    throw;
  }
  readEnd.Reset();
  result.exitCode = ReapExitCode(child);
  return result;
}

bool StartProcessDetached(const std::string& path, const std::vector<std::string>& args) {
  const pid_t child = ::fork();
  if (child < 0) {
    return false;
  }
  if (child == 0) {
    RunDetached(path, args);
  }
  int status = 0;
  (void)Reap(child, status);  // Whether the program could be started is not learned.
  return true;
}

}  // namespace kiv::process
