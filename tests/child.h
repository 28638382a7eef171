#ifndef KIV_TESTS_CHILD_H
#define KIV_TESTS_CHILD_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

#include "internal/unique_fd.h"
#include "tests/support.h"

namespace kiv::test {

/// Returns what `call` gives, 0 to 254, in a child that has no privileges; -1 or 255 when there is no such child.
template <typename Call>
int WithoutPrivileges(Call call) {
  constexpr uid_t kNobody = 65534;
  const pid_t pid = ::fork();
  if (pid == 0) {
    const bool isPlain = ::geteuid() != 0 || ::setresuid(kNobody, kNobody, kNobody) == 0;
    ::_exit(isPlain ? static_cast<int>(call()) : 255);
  }
  int status = -1;
  (void)::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Tells whether this process has no child, neither a live one nor one that was not waited for.
inline bool HasNoChild() { return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

/// Returns what `claim` returns in a forked process; one that dies, or lives for a minute, counts as false.
inline bool IsTrueInChild(const std::function<bool()>& claim) {
  const pid_t child = ::fork();
  if (child == 0) {
    (void)::alarm(60);
    ::_exit([&claim]() noexcept { return claim(); }() ? 0 : 1);
  }
  int status = -1;
  return ::waitpid(child, &status, 0) == child && status == 0;
}

/// Returns what `report` returns in a forked process; how that process ended when it did not get that far in a minute.
inline std::string InChild(const std::function<std::string()>& report) {
  int ends[2] = {-1, -1};
  (void)::pipe2(ends, O_CLOEXEC);
  const pid_t child = ::fork();
  if (child == 0) {
    (void)::alarm(60);
    const std::string text = [&report]() noexcept { return report(); }();
    ::_exit(::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  const internal::UniqueFd pipe(ends[0]);
  (void)::close(ends[1]);
  std::string text;
  char chunk[4096];
  for (ssize_t size = 1; size > 0; text.append(chunk, static_cast<std::size_t>(size > 0 ? size : 0))) {
    size = ::read(pipe.Get(), chunk, sizeof chunk);
  }
  int status = -1;
  (void)::waitpid(child, &status, 0);
  return status == 0 ? text : "child ended with wait status " + std::to_string(status);
}

/// Returns what `run` writes to standard output and standard error, in a forked process.
inline std::string OutputOf(const std::function<void()>& run) {
  (void)std::fflush(nullptr);
  return InChild([&run] {
    const internal::UniqueFd file(::memfd_create("output", MFD_CLOEXEC));
    (void)::dup2(file.Get(), STDOUT_FILENO);
    (void)::dup2(file.Get(), STDERR_FILENO);
    run();
    (void)std::fflush(nullptr);
    return ReadFile("/proc/self/fd/" + std::to_string(file.Get()));
  });
}

/// Returns the names of the claims that are false, one a line: a report for InChild that is empty when all is well.
inline std::string Untrue(std::initializer_list<std::pair<const char*, bool>> claims) {
  std::string names;
  for (const auto& [name, isTrue] : claims) {
    names += isTrue ? std::string() : std::string(name) + "\n";
  }
  return names;
}

/// A child that waits, for two minutes at most, until the object ends. `setUp` has run in it when the constructor
/// returns.
class OtherProcess {
 public:
  explicit OtherProcess(const std::function<void()>& setUp = [] {}) {
    int ends[2] = {-1, -1};
    (void)::pipe2(ends, O_CLOEXEC);
    mPid = ::fork();
    if (mPid == 0) {
      (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
      (void)::alarm(120);
      setUp();
      (void)::close(ends[0]);
      (void)::close(ends[1]);
      while (true) {
        (void)::pause();
      }
    }
    const internal::UniqueFd ready(ends[0]);
    (void)::close(ends[1]);
    char none = 0;
    (void)(::read(ready.Get(), &none, 1) == 0);
  }
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;
  ~OtherProcess() { (void)End(SIGKILL); }

  pid_t Pid() const { return mPid; }

  /// Sends `signal` and waits for the end. Returns the wait status.
  int End(int signal) {
    (void)(mPid > 0 && ::kill(mPid, signal) == 0);
    return Wait();
  }

  /// Waits for the end. Returns the wait status; -1 when it is known already.
  int Wait() {
    int status = -1;
    if (mPid > 0) {
      (void)::waitpid(mPid, &status, 0);
    }
    mPid = -1;
    return status;
  }

 private:
  pid_t mPid = -1;
};

/// A case that needs root: an ordinary user's run skips it, or fails where the variable CI is set.
class RootTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() == 0) {
      return;
    }
    if (std::getenv("CI") != nullptr) {
      FAIL() << "not run by root";
    }
    GTEST_SKIP() << "not run by root";
  }
};

/// While it lives, this process becomes the parent of its orphaned descendants. Waits for all of them at its end.
class Subreaper {
 public:
  Subreaper() { (void)::prctl(PR_SET_CHILD_SUBREAPER, 1); }
  Subreaper(const Subreaper&) = delete;
  Subreaper& operator=(const Subreaper&) = delete;
  ~Subreaper() {
    while (Next() >= 0) {
    }
    (void)::prctl(PR_SET_CHILD_SUBREAPER, 0);
  }

  /// Waits for the next child that ends. Returns its status, as waitpid(2) gives it; -1 when there is no child.
  static int Next() {
    int status = -1;
    return ::waitpid(-1, &status, 0) < 0 ? -1 : status;
  }
};

/// A named pipe between the tests and a program, open at both ends here so that nobody has to wait for the other side.
class Fifo {
 public:
  explicit Fifo(std::string path) : mPath(std::move(path)) {
    (void)::mkfifo(mPath.c_str(), 0600);
    mFd.Reset(::open(mPath.c_str(), O_RDWR | O_CLOEXEC));
  }

  const std::string& Path() const { return mPath; }

  /// Waits for what a program writes: a line, say. Empty when nothing comes in a minute.
  std::string Receive() const {
    pollfd entry{mFd.Get(), POLLIN, 0};
    char text[4096];
    const ssize_t size = ::poll(&entry, 1, 60000) == 1 ? ::read(mFd.Get(), text, sizeof text) : 0;
    return {text, static_cast<std::size_t>(size > 0 ? size : 0)};
  }

  /// Lets a program go on that reads a line.
  void Release() const { (void)(::write(mFd.Get(), "\n", 1) == 1); }

 private:
  std::string mPath;
  internal::UniqueFd mFd;
};

}  // namespace kiv::test

#endif  // KIV_TESTS_CHILD_H
