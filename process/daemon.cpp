#include <fcntl.h>
#include <grp.h>
#include <kiv/process.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "internal/unique_fd.h"
#include "process/child.h"

namespace kiv::process {
namespace {

constexpr int kFailed = 1;

// Forks, and ends the parent: with success when there is a child, else as a failure.
void ContinueInChild() {
  const pid_t child = ::fork();
  if (child != 0) {
    ::_exit(child < 0 ? kFailed : 0);
  }
}

// Puts all three standard descriptors on /dev/null.
bool RedirectStandardDescriptors() {
  internal::UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!null.IsValid()) {
    return false;
  }
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::dup2(null.Get(), standard) < 0) {
      return false;
    }
  }
  if (null.Get() <= STDERR_FILENO) {
    (void)null.Release();
  }
  return true;
}

}  // namespace

int Daemonize() {
  const pid_t child = ::fork();
  if (child < 0) {
    return kFailed;
  }
  if (child > 0) {
    ::_exit(0);
  }
  if (::setsid() < 0) {
    ::_exit(kFailed);
  }
  ContinueInChild();  // No longer the leader of the session, the daemon can never get a terminal.
  // Deliberate: files that the daemon creates get exactly the mode that it asks for.
  (void)::umask(0);
  if (::chdir("/") != 0 || !RedirectStandardDescriptors()) {
    ::_exit(kFailed);
  }
  CloseInheritedDescriptors();
  (void)std::signal(SIGPIPE, SIG_IGN);
  return 0;
}

bool DropRootPrivileges(unsigned int uid, unsigned int gid) {
  // In this order: once the user is set, the right to change the groups is gone.
  if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) {
    return false;
  }
  return ::getuid() == uid && ::geteuid() == uid && ::getgid() == gid && ::getegid() == gid;
}

}  // namespace kiv::process
