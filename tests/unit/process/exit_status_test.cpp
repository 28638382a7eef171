#include "process/exit_status.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

namespace kiv::process {
namespace {

// As wait(2) of Linux lays a status out: the exit code in bits 8 to 15, the signal in bits 0 to 6, bit 7 for a core
// file; 0x7f in the low bits is a process that has not ended.
int CodeByLayout(int status) {
  const int signo = status % 128;
  if (signo == 0) {
    return status / 256;
  }
  return signo == 127 ? 127 : 128 + signo;
}

TEST(ExitCodeOf, ExhaustiveComparisonOverAllStatuses) {
  for (int status = 0; status <= 0xFFFF; ++status) {
    ASSERT_EQ(ExitCodeOf(status), CodeByLayout(status)) << std::hex << status;
  }
}

TEST(ExitCodeOf, NotStartedIs127) { EXPECT_EQ(kNotStarted, 127); }

TEST(ExitCodeOf, StatusOfAProcessThatHasNotEndedIsNotStarted) {
  EXPECT_EQ(ExitCodeOf(W_STOPCODE(SIGSTOP)), 127);
  EXPECT_EQ(ExitCodeOf(__W_CONTINUED), 127);
}

template <typename Body>
int StatusOfChild(Body body, int options = 0) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    body();
    ::_exit(255);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(pid, &status, options), pid);
  if (WIFSTOPPED(status)) {
    EXPECT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
  }
  return status;
}

TEST(ExitCodeOf, ExitGivesTheCode) {
  for (const int code : {0, 1, 3, 126, 127, 128, 255}) {
    EXPECT_EQ(ExitCodeOf(StatusOfChild([code] { ::_exit(code); })), code);
  }
}

TEST(ExitCodeOf, DeathBySignalGives128PlusItsNumber) {
  for (const int signo : {SIGHUP, SIGKILL, SIGTERM, SIGUSR1}) {
    EXPECT_EQ(ExitCodeOf(StatusOfChild([signo] {
                (void)::signal(signo, SIG_DFL);
                (void)::raise(signo);
              })),
              128 + signo);
  }
}

TEST(ExitCodeOf, StoppedChildIsNotStarted) {
  const int status = StatusOfChild([] { (void)::raise(SIGSTOP); }, WUNTRACED);

  ASSERT_TRUE(WIFSTOPPED(status));
  EXPECT_EQ(ExitCodeOf(status), 127);
}

}  // namespace
}  // namespace kiv::process
