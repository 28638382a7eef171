#ifndef KIV_TESTS_KERNEL_NAMESPACE_H
#define KIV_TESTS_KERNEL_NAMESPACE_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>

#include "internal/unique_fd.h"

/// The real kernel, in namespaces that the tests make for themselves. Nothing here touches the machine's own
/// interfaces, mounts or host name.
namespace kiv::test {

/// Every case runs in network, mount and UTS namespaces of its own, with a /sys that shows them: "lo", down, is all
/// that is there. As an ordinary user it makes a user namespace, too. A machine that forbids it skips the case, or
/// fails it where the variable CI is set.
class KernelTest : public testing::Test {
 protected:
  void SetUp() override;
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

 private:
  pid_t mPid = -1;
  internal::UniqueFd mLife;
};

/// Runs a shell command and returns its output. A status other than 0 fails the test.
std::string Shell(const std::string& command);

/// Returns what `ip -j -d ARGUMENTS` prints in this namespace; an empty array when it prints nothing.
nlohmann::json Ip(const std::string& arguments);

/// Returns what ip tells of one interface, or null when there is none.
nlohmann::json Link(const std::string& name);

/// Tells whether ip shows `flag` ("UP", "MULTICAST", ...) of an interface.
bool HasFlag(const std::string& name, const std::string& flag);

/// Tells whether this kernel has a link kind.
bool KernelHas(const std::string& kind);

/// Puts files in place of those below /proc/net, for this process alone. Call WriteFile for each; what is not written
/// does not exist. Ends with the case's mount namespace.
class ProcNet {
 public:
  ProcNet();
  void WriteFile(const std::string& name, const std::string& content) const;
};

}  // namespace kiv::test

#endif  // KIV_TESTS_KERNEL_NAMESPACE_H
