#include "tests/kernel/namespace.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "tests/child.h"

namespace kiv::test {
namespace {

bool WriteText(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  return file.good();
}

// Root in a user namespace of its own may make the other namespaces.
bool EnterUserNamespace() {
  const std::string uid = std::to_string(::geteuid());
  const std::string gid = std::to_string(::getegid());
  return ::unshare(CLONE_NEWUSER) == 0 && WriteText("/proc/self/setgroups", "deny") &&
         WriteText("/proc/self/uid_map", "0 " + uid + " 1") && WriteText("/proc/self/gid_map", "0 " + gid + " 1");
}

bool EnterNetwork() { return ::unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS) == 0; }

bool EnterNamespaces() {
  return (EnterNetwork() || (EnterUserNamespace() && EnterNetwork())) &&
         ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("sysfs", "/sys", "sysfs", 0, nullptr) == 0;
}

// The child: tells that its namespace is there, then waits for the parent's end of the socket to close.
[[noreturn]] void HoldNamespace(int life) {
  char byte = ::unshare(CLONE_NEWNET) == 0 ? 'y' : 'n';
  if (::send(life, &byte, 1, MSG_NOSIGNAL) == 1) {
    (void)::recv(life, &byte, 1, 0);
  }
  ::_exit(0);
}

// A shell may have an applet named "ip", which lacks most of what is asked here: a function goes before it.
std::string WithRealIp(const std::string& command) {
  static constexpr std::array<const char*, 4> kPlaces = {"/usr/bin/ip", "/usr/sbin/ip", "/bin/ip", "/sbin/ip"};
  const auto* const place =
      std::find_if(kPlaces.begin(), kPlaces.end(), [](const char* path) { return ::access(path, X_OK) == 0; });
  return place == kPlaces.end() ? command : "ip() { " + std::string(*place) + " \"$@\"; }\n" + command;
}

// Empty when a loop device can be attached.
std::string WhyNoLoopDevice() {
  const internal::UniqueFd control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!control.IsValid()) {
    return std::string("/dev/loop-control: ") + std::strerror(errno);
  }
  const int number = ::ioctl(control.Get(), LOOP_CTL_GET_FREE);
  if (number < 0) {
    return std::string("no free loop device: ") + std::strerror(errno);
  }
  const std::string path = "/dev/loop" + std::to_string(number);
  return ::access(path.c_str(), R_OK | W_OK) == 0 ? "" : path + ": " + std::strerror(errno);
}

std::string ProcNetPath() { return "/proc/" + std::to_string(::getpid()) + "/net"; }

void RunBatch(const std::string& lines) {
  FILE* const pipe = ::popen(WithRealIp("ip -batch -").c_str(), "w");
  if (pipe == nullptr) {
    ADD_FAILURE() << std::strerror(errno);
    return;
  }
  EXPECT_EQ(std::fwrite(lines.data(), 1, lines.size(), pipe), lines.size());
  EXPECT_EQ(::pclose(pipe), 0);
}

// What `ip link show` tells of one interface, or null.
nlohmann::json Named(const nlohmann::json& links, const std::string& name) {
  const auto link = std::find_if(links.begin(), links.end(),
                                 [&name](const nlohmann::json& entry) { return entry.value("ifname", "") == name; });
  return link == links.end() ? nlohmann::json() : *link;
}

nlohmann::json ParseJson(const std::string& text) {
  return text.find_first_not_of(" \n") == std::string::npos ? nlohmann::json::array() : nlohmann::json::parse(text);
}

}  // namespace

void KernelTest::SetUp() {
  mReady = EnterNamespaces();
  if (mReady) {
    return;
  }
  const std::string why = std::string("cannot make namespaces: ") + std::strerror(errno);
  if (std::getenv("CI") != nullptr) {
    FAIL() << why;
  }
  GTEST_SKIP() << why;
}

// The next case in this process copies what is mounted, and a /sys keeps its network namespace alive.
void KernelTest::TearDown() {
  if (mReady) {
    (void)::umount2("/sys", MNT_DETACH);
  }
}

void KernelTest::NeedKind(const std::string& kind) {
  if (mReady && !KernelHas(kind)) {
    GTEST_SKIP() << "this kernel has no link kind " << kind;
  }
}

bool KernelTest::NeedProgram(const std::string& name) {
  const bool isThere = std::system(("command -v " + name + " >/dev/null").c_str()) == 0;
  if (!isThere && std::getenv("CI") == nullptr) {
    [&name] { GTEST_SKIP() << "no program " << name; }();
  } else {
    EXPECT_TRUE(isThere) << name;
  }
  return isThere;
}

void MountTest::SetUp() {
  KernelTest::SetUp();
  if (IsReady()) {
    ASSERT_EQ(::mount("tmpfs", mFolder.Path().c_str(), "tmpfs", 0, "size=64m"), 0) << std::strerror(errno);
  }
}

void MountTest::TearDown() {
  if (IsReady()) {
    (void)::umount2(mFolder.Path().c_str(), MNT_DETACH);
  }
  KernelTest::TearDown();
}

bool MountTest::NeedLoopDevices() {
  const std::string why = WhyNoLoopDevice();
  if (!why.empty()) {
    [&why] { GTEST_SKIP() << why; }();
  }
  return why.empty();
}

bool MountTest::NeedFilesystem(const std::string& type) {
  const std::string probe = At("probe");
  (void)::mkdir(probe.c_str(), 0700);
  const bool isMounted = ::mount("none", probe.c_str(), type.c_str(), 0, nullptr) == 0;
  // Anything else is said about the device, which a type that is known and allowed may ask for.
  const bool isThere = isMounted || (errno != ENODEV && errno != EPERM);
  if (isMounted) {
    (void)::umount2(probe.c_str(), MNT_DETACH);
  }
  (void)::rmdir(probe.c_str());
  if (!isThere) {
    [&type] { GTEST_SKIP() << "this kernel has no filesystem " << type << " for this user"; }();
  }
  return isThere;
}

std::string MountTest::Mount(const std::string& type, const std::string& name, const std::string& options) const {
  const std::string path = At(name);
  EXPECT_EQ(::mkdir(path.c_str(), 0700), 0) << path;
  EXPECT_EQ(::mount("none", path.c_str(), type.c_str(), 0, options.c_str()), 0)
      << type << ' ' << options << ": " << std::strerror(errno);
  return path;
}

std::string MountTest::MountExt4(const std::string& name, const std::string& options) const {
  const std::string path = At(name);
  (void)Shell("mkdir " + path + " && truncate -s 16M " + path + ".img && mkfs.ext4 -q " + options + ' ' + path +
              ".img && mount -t ext4 -o loop " + path + ".img " + path);
  return path;
}

OtherNamespace::OtherNamespace() {
  int fds[2] = {-1, -1};
  (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
  mPid = ::fork();
  if (mPid == 0) {
    (void)::close(fds[0]);
    HoldNamespace(fds[1]);
  }
  (void)::close(fds[1]);
  mLife.Reset(fds[0]);
  char answer = 'n';
  (void)::recv(mLife.Get(), &answer, 1, 0);
  EXPECT_EQ(answer, 'y') << "no second network namespace";
}

OtherNamespace::~OtherNamespace() {
  mLife.Reset();
  (void)::waitpid(mPid, nullptr, 0);
}

nlohmann::json OtherNamespace::Ip(const std::string& arguments) const {
  return ParseJson(
      Shell("nsenter -t " + std::to_string(mPid) + " -n sh -c '" + WithRealIp("ip -j -d " + arguments) + "'"));
}

nlohmann::json OtherNamespace::Link(const std::string& name) const { return Named(Ip("link show"), name); }

std::string Shell(const std::string& command) {
  FILE* const pipe = ::popen(WithRealIp(command).c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << command << ": " << std::strerror(errno);
    return {};
  }
  std::string output;
  char chunk[65536];
  for (std::size_t size = std::fread(chunk, 1, sizeof chunk, pipe); size > 0;
       size = std::fread(chunk, 1, sizeof chunk, pipe)) {
    output.append(chunk, size);
  }
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return output;
}

void IpBatch(const std::string& lines) {
  // ip keeps 32 KiB for each command of a batch: on a 32-bit machine a hundred thousand of them do not fit.
  constexpr std::size_t kMost = std::size_t{1} << 20;
  for (std::size_t begin = 0; begin < lines.size();) {
    const std::size_t end = std::min(lines.find('\n', begin + kMost), lines.size() - 1) + 1;
    RunBatch(lines.substr(begin, end - begin));
    begin = end;
  }
}

bool IpAccepts(const std::string& arguments) {
  return std::system(WithRealIp("ip " + arguments + " 2>/dev/null").c_str()) == 0;
}

nlohmann::json Ip(const std::string& arguments) { return ParseJson(Shell("ip -j -d " + arguments)); }

nlohmann::json Link(const std::string& name) { return Named(Ip("link show"), name); }

bool HasFlag(const std::string& name, const std::string& flag) {
  const nlohmann::json link = Link(name);
  if (link.is_null()) {
    ADD_FAILURE() << "no interface " << name;
    return false;
  }
  const nlohmann::json& flags = link.at("flags");
  return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

bool LinkExists(const std::string& name) { return !Link(name).is_null(); }

bool IsUp(const std::string& name) { return HasFlag(name, "UP"); }

nlohmann::json Flags(const std::string& name) { return Link(name).at("flags"); }

void MakeBridge(const std::string& name) { (void)Shell("ip link add " + name + " type bridge"); }

void MakeVeth(const std::string& name) {
  (void)Shell("ip link add " + name + " type veth peer name " + name + "-peer");
}

// A kind that the kernel has may still ask for more than its name, with another answer.
bool KernelHas(const std::string& kind) {
  const std::string answer = Shell("ip link add kivprobe type " + kind + " 2>&1 && ip link delete kivprobe || true");
  return answer.find("Unknown device type") == std::string::npos &&
         answer.find("Operation not supported") == std::string::npos;
}

bool DropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[2] = {};
  return ::syscall(SYS_capset, &header, none) == 0;
}

bool IsTrueUnprivileged(const std::function<bool()>& claim) {
  return IsTrueInChild([&claim] { return DropCapabilities() && claim(); });
}

ProcNet::ProcNet() {
  EXPECT_EQ(::mount("tmpfs", ProcNetPath().c_str(), "tmpfs", 0, nullptr), 0) << std::strerror(errno);
}

ProcNet::~ProcNet() { (void)::umount2(ProcNetPath().c_str(), MNT_DETACH); }

void ProcNet::WriteFile(const std::string& name, const std::string& content) const {
  EXPECT_TRUE(WriteText("/proc/self/net/" + name, content)) << name;
}

}  // namespace kiv::test
