#ifndef KIV_TESTS_KERNEL_NAMESPACE_H
#define KIV_TESTS_KERNEL_NAMESPACE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "internal/unique_fd.h"
#include "tests/support.h"

/// The real kernel, in namespaces that the tests make for themselves. Nothing here touches the machine's own
/// interfaces, mounts or host name.
namespace kiv::test {

/// Every case runs in network, mount and UTS namespaces of its own, with a /sys that shows them: "lo", down, is all
/// that is there. As an ordinary user it makes a user namespace, too. A machine that forbids it skips the case, or
/// fails it where the variable CI is set.
class KernelTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Skips the case, wherever it runs, when this kernel lacks a link kind. For the end of SetUp.
  void NeedKind(const std::string& kind);

  /// Skips the case, or fails it where the variable CI is set, and returns false without that program.
  static bool NeedProgram(const std::string& name);

  /// Tells whether the namespaces are there: only then may a SetUp of its own change anything.
  bool IsReady() const { return mReady; }

 private:
  bool mReady = false;
};

/// As KernelTest, with an empty tmpfs of 64 MiB below /tmp for files and mount points. What a case has mounted in it
/// goes with it.
class MountTest : public KernelTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Skips the case, wherever it runs, and returns false when this machine has no loop device to attach.
  bool NeedLoopDevices();

  /// Skips the case, wherever it runs, and returns false when this kernel has no filesystem of that type for this user.
  bool NeedFilesystem(const std::string& type);

  /// Returns the path of `name` in the tmpfs.
  std::string At(const std::string& name) const { return mFolder.Path() + '/' + name; }

  /// Makes the folder `name` in the tmpfs, mounts a filesystem that needs no device on it, and returns its path. See
  /// mount(8) for the options.
  std::string Mount(const std::string& type, const std::string& name, const std::string& options = "") const;

  /// Makes an ext4 image of 16 MiB, mounts it on the folder `name` in the tmpfs through a loop device that is detached
  /// when it is unmounted, and returns the folder's path. See mkfs.ext4(8) for the options.
  std::string MountExt4(const std::string& name, const std::string& options = "") const;

 private:
  TempFolder mFolder;
};

/// A second network namespace, held by a process that sleeps in it until the object ends.
class OtherNamespace {
 public:
  OtherNamespace();
  OtherNamespace(const OtherNamespace&) = delete;
  OtherNamespace& operator=(const OtherNamespace&) = delete;
  ~OtherNamespace();

  pid_t Pid() const { return mPid; }

  /// Returns what `ip -j -d ARGUMENTS` prints there.
  nlohmann::json Ip(const std::string& arguments) const;

  /// Returns what ip tells of one interface there, or null when there is none.
  nlohmann::json Link(const std::string& name) const;

 private:
  pid_t mPid = -1;
  internal::UniqueFd mLife;
};

/// Runs a shell command and returns its output; its "ip" is that of iproute2. A status other than 0 fails the test.
std::string Shell(const std::string& command);

/// Runs a file of ip commands, one a line without the leading "ip". A command that fails fails the test.
void IpBatch(const std::string& lines);

/// Tells whether `ip ARGUMENTS` succeeds: what the kernel answers to the same request from another program.
bool IpAccepts(const std::string& arguments);

/// Returns what `ip -j -d ARGUMENTS` prints in this namespace; an empty array when it prints nothing.
nlohmann::json Ip(const std::string& arguments);

/// Returns what ip tells of one interface, or null when there is none.
nlohmann::json Link(const std::string& name);

/// Tells whether ip shows `flag` ("UP", "MULTICAST", ...) of an interface.
bool HasFlag(const std::string& name, const std::string& flag);

/// Tells whether ip shows an interface.
bool LinkExists(const std::string& name);

/// Tells whether ip shows an interface as up.
bool IsUp(const std::string& name);

/// Returns the flags that ip shows of an interface.
nlohmann::json Flags(const std::string& name);

/// Makes a bridge.
void MakeBridge(const std::string& name);

/// Makes a pair of virtual Ethernet interfaces; the other one has "-peer" behind the name.
void MakeVeth(const std::string& name);

/// Tells whether this kernel has a link kind.
bool KernelHas(const std::string& kind);

/// Takes all capabilities from this process, for good. Its user stays: files of others are closed to it, its own ones
/// as their modes say.
bool DropCapabilities();

/// As IsTrueInChild (tests/child.h), in a child that has no capability left.
bool IsTrueUnprivileged(const std::function<bool()>& claim);

/// Puts files in place of those below /proc/net, for this process alone, while it lives. Call WriteFile for each; what
/// is not written does not exist.
class ProcNet {
 public:
  ProcNet();
  ProcNet(const ProcNet&) = delete;
  ProcNet& operator=(const ProcNet&) = delete;
  ~ProcNet();

  void WriteFile(const std::string& name, const std::string& content) const;
};

}  // namespace kiv::test

#endif  // KIV_TESTS_KERNEL_NAMESPACE_H
