// hold_thread ID: holds up one thread for as long as this program lives. All others of its process go on, which a
// signal cannot do.
#include <sys/ptrace.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  const pid_t thread = argc == 2 ? static_cast<pid_t>(std::strtol(argv[1], nullptr, 10)) : 0;
  if (thread == 0 || ::ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) == -1 ||
      ::ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) == -1 || ::waitpid(thread, nullptr, __WALL) != thread) {
    std::perror("hold_thread");
    return 1;
  }
  (void)std::puts("held");
  (void)std::fflush(stdout);
  (void)::pause();
  return 1;
}
