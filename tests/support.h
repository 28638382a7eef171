#ifndef KIV_TESTS_SUPPORT_H
#define KIV_TESTS_SUPPORT_H

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "internal/unique_fd.h"

namespace kiv::test {

/// Counts the descriptors that this process has open, without the one used for counting. The C library goes through the
/// list by itself: a test that notes the calls of the library under test does not note these.
inline std::size_t CountOpenFds() {
  dirent** list = nullptr;
  const int count = ::scandir("/proc/self/fd", &list, nullptr, nullptr);
  for (int i = 0; i < count; ++i) {
    std::free(list[i]);
  }
  std::free(list);
  return static_cast<std::size_t>(count) - 3;  // ".", ".." and the directory stream itself.
}

/// Tells whether `fd` is an open descriptor.
inline bool IsOpen(int fd) { return ::access(("/proc/self/fd/" + std::to_string(fd)).c_str(), F_OK) == 0; }

/// Makes a connected pair of unix stream sockets.
inline std::pair<internal::UniqueFd, internal::UniqueFd> SocketPair() {
  int fds[2] = {-1, -1};
  (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
  return {internal::UniqueFd(fds[0]), internal::UniqueFd(fds[1])};
}

/// Makes a unix socket with a name in the filesystem.
inline internal::UniqueFd UnixSocketAt(const std::string& path) {
  internal::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  path.copy(addr.sun_path, sizeof addr.sun_path - 1);
  EXPECT_EQ(::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 0) << path;
  return fd;
}

/// Returns the address of `port` (host byte order) on the loopback interface.
inline sockaddr_in Loopback(unsigned short port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

/// Tells whether a read from `fd` would give something now.
inline bool IsReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

/// Makes a non-blocking eventfd; it is readable unless `count` is 0.
inline internal::UniqueFd EventFd(unsigned count) {
  return internal::UniqueFd(::eventfd(count, EFD_NONBLOCK | EFD_CLOEXEC));
}

/// Returns the number that the next descriptor opened by this process gets.
inline int NextFd() { return EventFd(0).Get(); }

/// Makes every call that opens a descriptor fail with EMFILE while it lives.
///
/// The undefined-behaviour sanitizer opens a pipe when it meets a polymorphic class for the first time, and takes a
/// failure for an invalid object: make and destroy one of the class before.
class NoNewDescriptors {
 public:
  NoNewDescriptors() {
    (void)::getrlimit(RLIMIT_NOFILE, &mSaved);
    rlimit none = mSaved;
    none.rlim_cur = 0;
    (void)::setrlimit(RLIMIT_NOFILE, &none);
  }
  NoNewDescriptors(const NoNewDescriptors&) = delete;
  NoNewDescriptors& operator=(const NoNewDescriptors&) = delete;
  ~NoNewDescriptors() { (void)::setrlimit(RLIMIT_NOFILE, &mSaved); }

 private:
  rlimit mSaved{};
};

/// Lets the process open `count` more descriptors, and no more, while it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t count) {
    (void)::getrlimit(RLIMIT_NOFILE, &mSaved);
    rlimit limit = mSaved;
    limit.rlim_cur = std::min(static_cast<rlim_t>(NextFd()) + count, mSaved.rlim_max);
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { (void)::setrlimit(RLIMIT_NOFILE, &mSaved); }

 private:
  rlimit mSaved{};
};

/// Puts the calling thread's signal mask back at its end, after taking the signals that are still pending.
class SignalMaskRestorer {
 public:
  SignalMaskRestorer() { (void)::pthread_sigmask(SIG_SETMASK, nullptr, &mSaved); }
  SignalMaskRestorer(const SignalMaskRestorer&) = delete;
  SignalMaskRestorer& operator=(const SignalMaskRestorer&) = delete;
  ~SignalMaskRestorer() {
    sigset_t blocked;
    (void)::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    const timespec now{};
    while (::sigtimedwait(&blocked, nullptr, &now) > 0) {
    }
    (void)::pthread_sigmask(SIG_SETMASK, &mSaved, nullptr);
  }

 private:
  sigset_t mSaved{};
};

/// Adds `signo` to the signals that the calling thread blocks.
inline void Block(int signo) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signo);
  (void)::pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

/// Tells whether the calling thread blocks `signo`.
inline bool IsBlocked(int signo) {
  sigset_t mask;
  (void)::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signo) == 1;
}

/// Tells whether `signo` waits for the calling thread to unblock or read it.
inline bool IsPending(int signo) {
  sigset_t pending;
  (void)::sigpending(&pending);
  return sigismember(&pending, signo) == 1;
}

/// Runs `loop` for one wait and one dispatch: the stop is deferred by a deferred call, so it takes effect after these.
inline void RunOnePass(net::EventLoop& loop) {
  loop.Defer([&loop] { loop.Stop(); });
  loop.Run();
}

/// Returns the bytes of a number or a record as they lie in memory.
template <typename Value>
std::string Octets(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

/// Returns `bytes` filled up with zeros to a multiple of 4.
inline std::string Padded(std::string bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
  return bytes;
}

/// Returns one netlink attribute with its padding.
inline std::string AttributeBytes(std::uint16_t type, const std::string& data) {
  return Padded(Octets(static_cast<std::uint16_t>(4 + data.size())) + Octets(type) + data);
}

/// Returns one netlink message with its padding: no flags, sequence 1, port 0.
inline std::string MessageBytes(std::uint16_t type, const std::string& body) {
  const std::uint16_t flags = 0;
  const std::uint32_t sequenceAndPort[] = {1, 0};
  return Padded(Octets(static_cast<std::uint32_t>(16 + body.size())) + Octets(type) + Octets(flags) +
                Octets(sequenceAndPort) + body);
}

/// A folder of its own, "/tmp/kXXXXXX" or the like elsewhere, removed at its end with all that is in it.
class TempFolder {
 public:
  explicit TempFolder(const std::string& parent = "/tmp") : mPath(parent + "/kXXXXXX") {
    if (::mkdtemp(mPath.data()) == nullptr) {
      mPath.clear();
    }
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder() {
    std::error_code ignored;
    (void)std::filesystem::remove_all(mPath, ignored);
  }

  /// Empty when it could not be made.
  const std::string& Path() const { return mPath; }

 private:
  std::string mPath;
};

/// Makes or replaces the file `path`.
inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

/// Returns what a file holds; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Tells whether `path` leads to something.
inline bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

/// Returns what stat(2) tells of `path`.
inline struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status;
}

/// Returns the permission bits of `path`.
inline mode_t ModeOf(const std::string& path) { return StatusOf(path).st_mode & 07777; }

/// Tells whether what takes seconds elsewhere would take minutes here: on an emulated processor.
inline bool IsSlowMachine() { return std::getenv("KIV_SLOW_MACHINE") != nullptr; }

/// Waits, for a minute at most, until `claim` is true, and tells whether it is: what another thread or the kernel does
/// in its own time, or when something else on this machine has let go.
inline bool BecomesTrue(const std::function<bool()>& claim) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  bool holds = claim();
  while (!holds && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    holds = claim();
  }
  return holds;
}

/// Sets the process's file mode creation mask while it lives.
class Umask {
 public:
  explicit Umask(mode_t mask) : mSaved(::umask(mask)) {}
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;
  ~Umask() { (void)::umask(mSaved); }

 private:
  mode_t mSaved;
};

/// Makes `path` the working directory while it lives.
class WorkingFolder {
 public:
  explicit WorkingFolder(const std::string& path) : mSaved(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    EXPECT_EQ(::chdir(path.c_str()), 0) << path;
  }
  WorkingFolder(const WorkingFolder&) = delete;
  WorkingFolder& operator=(const WorkingFolder&) = delete;
  ~WorkingFolder() { EXPECT_EQ(::fchdir(mSaved.Get()), 0); }

 private:
  internal::UniqueFd mSaved;
};

}  // namespace kiv::test

#endif  // KIV_TESTS_SUPPORT_H
