#include <kiv/utils.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "tests/child.h"
#include "tests/kernel/namespace.h"
#include "tests/support.h"

namespace kiv::utils {
namespace {

using test::Shell;

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

std::string NameInProc() {
  std::ifstream file("/proc/sys/kernel/hostname");
  std::string line;
  (void)std::getline(file, line);
  return line;
}

// Sets the name past the library, which takes less than the kernel does.
void SetByKernel(const std::string& name) { ASSERT_EQ(::sethostname(name.data(), name.size()), 0); }

class SetHostnameKernel : public test::KernelTest {};
class GetHostnameKernel : public test::KernelTest {};

TEST_F(SetHostnameKernel, ReachesTheKernelUnchanged) {
  for (const std::string& name :
       {std::string("gateway-1"), std::string("a"), std::string("my host"), std::string(63, 'n'), std::string(" "),
        std::string(".dots."), std::string("UPPER_case"), std::string("\xc3\xbc-\xff\x80\x01\t;$'\"\\"),
        std::string(62, 'n') + ' '}) {
    EXPECT_TRUE(SetHostname(name)) << name;
    EXPECT_EQ(FirstLine(Shell("uname -n")), name);
    EXPECT_EQ(NameInProc(), name);
    EXPECT_EQ(GetHostname(), name);
  }
}

TEST_F(SetHostnameKernel, AShorterNameLeavesNothingOfALongerOne) {
  ASSERT_TRUE(SetHostname(std::string(63, 'n')));

  EXPECT_TRUE(SetHostname("x"));
  EXPECT_EQ(NameInProc(), "x");
}

TEST_F(SetHostnameKernel, RefusesANameWithoutChangingAnything) {
  SetByKernel("before");
  for (const std::string& name :
       {std::string(), std::string(64, 'n'), std::string(65, 'n'), std::string(5000, 'n'), std::string("name\n"),
        std::string("\n"), std::string("na\rme"), std::string("name\r"), std::string("na\0me", 5),
        std::string("name\0", 5), std::string("\0name", 5)}) {
    EXPECT_FALSE(SetHostname(name)) << name.size() << " bytes: " << name;
    EXPECT_EQ(NameInProc(), "before");
  }
}

TEST_F(SetHostnameKernel, FailsWithoutPrivilege) {
  SetByKernel("before");

  EXPECT_TRUE(
      test::IsTrueUnprivileged([] { return !SetHostname("after") && errno == EPERM && GetHostname() == "before"; }));
  EXPECT_EQ(NameInProc(), "before");
}

TEST_F(SetHostnameKernel, ChangesTheCallersNamespaceAlone) {
  ASSERT_TRUE(SetHostname("outside"));

  EXPECT_TRUE(test::IsTrueInChild(
      [] { return ::unshare(CLONE_NEWUTS) == 0 && SetHostname("inside") && GetHostname() == "inside"; }));
  EXPECT_EQ(GetHostname(), "outside");
}

TEST_F(GetHostnameKernel, FollowsTheKernel) {
  for (const std::string& name : {std::string("one"), std::string("two words"), std::string(64, 'k')}) {
    SetByKernel(name);
    EXPECT_EQ(GetHostname(), name);
    EXPECT_EQ(GetHostname(), FirstLine(Shell("uname -n")));
  }
}

TEST_F(GetHostnameKernel, EndsAtANulByte) {
  SetByKernel(std::string("one\0two", 7));
  EXPECT_EQ(GetHostname(), "one");
}

TEST_F(GetHostnameKernel, AnEmptyNameIsEmpty) {
  SetByKernel("");
  EXPECT_EQ(GetHostname(), "");
}

TEST_F(GetHostnameKernel, NothingLeavesADescriptorOpen) {
  const std::size_t before = test::CountOpenFds();

  for (int i = 0; i < 3; ++i) {
    (void)SetHostname("name");
    (void)SetHostname("name\n");
    (void)GetHostname();
  }

  EXPECT_EQ(test::CountOpenFds(), before);
}

}  // namespace
}  // namespace kiv::utils
