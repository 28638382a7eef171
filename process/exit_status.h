#ifndef KIV_PROCESS_EXIT_STATUS_H
#define KIV_PROCESS_EXIT_STATUS_H

#include <sys/wait.h>

namespace kiv::process {

/// What counts as the exit code of a program that could not be started, or whose end is not known.
constexpr int kNotStarted = 127;

/// Returns the exit code in a status of waitpid(2): that of a normal exit, 128 plus the number of the signal that
/// killed the program, or kNotStarted for any other status.
inline int ExitCodeOf(int status) {
  if (WIFEXITED(status)) {
    return WEXITSTATUS(status);
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : kNotStarted;
}

}  // namespace kiv::process

#endif  // KIV_PROCESS_EXIT_STATUS_H
