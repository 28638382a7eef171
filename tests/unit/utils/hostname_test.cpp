#include <gtest/gtest.h>
#include <kiv/utils.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

namespace kiv::utils {
namespace {

constexpr int kNoNamespace = 77;

std::string NodeName() {
  utsname names{};
  EXPECT_EQ(::uname(&names), 0);
  return names.nodename;
}

// As an ordinary user a user namespace is needed, too.
bool EnterOwnUtsNamespace() { return ::unshare(CLONE_NEWUTS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWUTS) == 0; }

// Runs `works` in a child with a host name of its own, and returns its answer as the exit code: 0 for true, 1 for
// false, kNoNamespace where none can be made. The machine's own name is out of its reach.
int InOwnUtsNamespace(bool (*works)()) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    (void)::alarm(60);
    ::_exit(!EnterOwnUtsNamespace() ? kNoNamespace : works() ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Tell(const std::string& what) {
  (void)::write(STDERR_FILENO, what.data(), what.size());
  return false;
}

bool IsRefused(const std::string& name) {
  const std::string before = NodeName();
  return (!SetHostname(name) && NodeName() == before) || Tell("taken: \"" + name + "\"\n");
}

bool IsTaken(const std::string& name) {
  return (SetHostname(name) && NodeName() == name && GetHostname() == name) || Tell("not taken: \"" + name + "\"\n");
}

bool RefusesOtherLengths() {
  return IsTaken("before") && IsRefused("") && IsRefused(std::string(64, 'n')) && IsRefused(std::string(65, 'n')) &&
         IsRefused(std::string(1 << 20, 'n'));
}

// Each of the three bytes at every position of a name.
bool RefusesNulAndLineEnds() {
  for (const char byte : {'\0', '\n', '\r'}) {
    for (const std::size_t size : {1U, 2U, 63U}) {
      for (std::size_t at = 0; at < size; ++at) {
        std::string name(size, 'n');
        name[at] = byte;
        if (!IsRefused(name)) {
          return false;
        }
      }
    }
  }
  return true;
}

bool TakesEveryOtherByte() {
  for (int value = 1; value < 256; ++value) {
    if (value != '\n' && value != '\r' && !IsTaken({'h', static_cast<char>(value)})) {
      return false;
    }
  }
  return IsTaken("my host") && IsTaken(" ") && IsTaken(".Gateway-1.") && IsTaken("gateway-1");
}

bool TakesOneTo63Bytes() {
  for (std::size_t size = 1; size <= 63; ++size) {
    if (!IsTaken(std::string(size, 'n'))) {
      return false;
    }
  }
  return true;
}

// The kernel's limit is 64: such a name fills the field that gethostname copies.
bool ReadsANameOf64Bytes() {
  const std::string name(64, 'n');
  return ::sethostname(name.data(), name.size()) == 0 && GetHostname() == name;
}

bool FailsWithoutPrivilege() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  const std::string before = NodeName();
  return ::syscall(SYS_capset, &header, none) == 0 && !SetHostname("gateway-1") && errno == EPERM &&
         NodeName() == before;
}

bool ReadsAnEmptyName() { return ::sethostname("", 0) == 0 && GetHostname().empty(); }

bool EndsAtANulByte() { return ::sethostname("ab\0cd", 5) == 0 && GetHostname() == "ab"; }

void ExpectInOwnUtsNamespace(bool (*works)()) {
  const int result = InOwnUtsNamespace(works);
  if (result == kNoNamespace) {
    GTEST_SKIP() << "cannot make a UTS namespace";
  }
  EXPECT_EQ(result, 0);
}

TEST(SetHostname, RefusesEmptyNamesAndThoseOf64Bytes) { ExpectInOwnUtsNamespace(RefusesOtherLengths); }

TEST(SetHostname, RefusesNulLineFeedAndCarriageReturnAnywhere) { ExpectInOwnUtsNamespace(RefusesNulAndLineEnds); }

TEST(SetHostname, PassesEveryOtherByteToTheKernel) { ExpectInOwnUtsNamespace(TakesEveryOtherByte); }

TEST(SetHostname, TakesOneTo63Bytes) { ExpectInOwnUtsNamespace(TakesOneTo63Bytes); }

TEST(SetHostname, FailsWithoutPrivilege) { ExpectInOwnUtsNamespace(FailsWithoutPrivilege); }

TEST(GetHostname, IsTheNodeNameOfUname) { EXPECT_EQ(GetHostname(), NodeName()); }

TEST(GetHostname, ReadsANameOf64Bytes) { ExpectInOwnUtsNamespace(ReadsANameOf64Bytes); }

TEST(GetHostname, ReadsAnEmptyName) { ExpectInOwnUtsNamespace(ReadsAnEmptyName); }

TEST(GetHostname, EndsAtANulByteSetByOthers) { ExpectInOwnUtsNamespace(EndsAtANulByte); }

}  // namespace
}  // namespace kiv::utils
