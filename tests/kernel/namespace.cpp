#include "tests/kernel/namespace.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

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
  const std::string uid = std::to_string(::getuid());
  const std::string gid = std::to_string(::getgid());
  return ::unshare(CLONE_NEWUSER) == 0 && WriteText("/proc/self/setgroups", "deny") &&
         WriteText("/proc/self/uid_map", "0 " + uid + " 1") && WriteText("/proc/self/gid_map", "0 " + gid + " 1");
}

bool EnterNamespaces() {
  if (::geteuid() != 0 && !EnterUserNamespace()) {
    return false;
  }
  return ::unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS) == 0 &&
         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
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

nlohmann::json ParseJson(const std::string& text) {
  return text.find_first_not_of(" \n") == std::string::npos ? nlohmann::json::array() : nlohmann::json::parse(text);
}

}  // namespace

void KernelTest::SetUp() {
  if (EnterNamespaces()) {
    return;
  }
  const std::string why = std::string("cannot make namespaces: ") + std::strerror(errno);
  if (std::getenv("CI") != nullptr) {
    FAIL() << why;
  }
  GTEST_SKIP() << why;
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
  return ParseJson(Shell("nsenter --target " + std::to_string(mPid) + " --net ip -j -d " + arguments));
}

std::string Shell(const std::string& command) {
  FILE* const pipe = ::popen(command.c_str(), "r");
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

nlohmann::json Ip(const std::string& arguments) { return ParseJson(Shell("ip -j -d " + arguments)); }

nlohmann::json Link(const std::string& name) {
  for (const nlohmann::json& link : Ip("link show")) {
    if (link.value("ifname", "") == name) {
      return link;
    }
  }
  return {};
}

bool HasFlag(const std::string& name, const std::string& flag) {
  const nlohmann::json link = Link(name);
  if (link.is_null()) {
    ADD_FAILURE() << "no interface " << name;
    return false;
  }
  const nlohmann::json& flags = link.at("flags");
  return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

bool KernelHas(const std::string& kind) {
  const std::string probe = "kivprobe";
  return std::system(("ip link add " + probe + " type " + kind + " 2>/dev/null && ip link delete " + probe).c_str()) ==
         0;
}

ProcNet::ProcNet() {
  const std::string path = "/proc/" + std::to_string(::getpid()) + "/net";
  EXPECT_EQ(::mount("tmpfs", path.c_str(), "tmpfs", 0, nullptr), 0) << std::strerror(errno);
}

void ProcNet::WriteFile(const std::string& name, const std::string& content) const {
  EXPECT_TRUE(WriteText("/proc/self/net/" + name, content)) << name;
}

}  // namespace kiv::test
