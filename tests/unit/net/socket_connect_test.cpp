#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;

UniqueFd MakeSocket(int domain, int type) { return UniqueFd(::socket(domain, type | SOCK_CLOEXEC, 0)); }

// A directory of its own for socket files, removed with them.
class SocketDir {
 public:
  SocketDir() { EXPECT_NE(::mkdtemp(mPath), nullptr); }
  SocketDir(const SocketDir&) = delete;
  SocketDir& operator=(const SocketDir&) = delete;
  ~SocketDir() {
    (void)::unlink(File().c_str());
    (void)::rmdir(mPath);
  }

  std::string File() const { return std::string(mPath) + "/socket"; }

 private:
  char mPath[32] = "/tmp/kiv-socket-XXXXXX";
};

std::string AbstractName() { return std::string("kiv\0test-", 9) + std::to_string(::getpid()); }

sockaddr_in NameOf(const UniqueFd& fd) {
  sockaddr_in addr{};
  socklen_t size = sizeof addr;
  EXPECT_EQ(::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&addr), &size), 0);
  return addr;
}

sockaddr_in PeerOf(const UniqueFd& fd) {
  sockaddr_in addr{};
  socklen_t size = sizeof addr;
  EXPECT_EQ(::getpeername(fd.Get(), reinterpret_cast<sockaddr*>(&addr), &size), 0);
  return addr;
}

// A socket with a free port of the loopback interface; a stream socket refuses connections until it listens.
UniqueFd BoundSocket(int type) {
  UniqueFd fd = MakeSocket(AF_INET, type);
  EXPECT_TRUE(BindInet(fd.Get(), "127.0.0.1", 0, false));
  return fd;
}

UniqueFd Listener() {
  UniqueFd fd = BoundSocket(SOCK_STREAM);
  EXPECT_EQ(::listen(fd.Get(), 8), 0);
  return fd;
}

int FlagOf(const UniqueFd& fd, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(fd.Get(), SOL_SOCKET, option, &value, &size), 0);
  return value;
}

bool HasConnection(const UniqueFd& listener) {
  pollfd entry{listener.Get(), POLLIN, 0};
  return ::poll(&entry, 1, 10000) == 1;
}

void Send(const UniqueFd& fd, const std::string& bytes) {
  ASSERT_EQ(::send(fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// What recv gives without waiting: a byte count, 0 at the end, or -1.
ssize_t RecvNow(const UniqueFd& fd) {
  char bytes[64];
  return ::recv(fd.Get(), bytes, sizeof bytes, MSG_DONTWAIT);
}

TEST(BindUnix, MakesTheSocketFile) {
  const SocketDir dir;
  const UniqueFd fd = MakeSocket(AF_UNIX, SOCK_STREAM);

  EXPECT_TRUE(BindUnix(fd.Get(), UnixAddress(dir.File(), false)));

  struct stat info {};
  ASSERT_EQ(::stat(dir.File().c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
}

TEST(BindUnix, TakesAnAbstractNameWithoutTrailingBytes) {
  const UniqueFd fd = MakeSocket(AF_UNIX, SOCK_STREAM);
  const UnixAddress address(AbstractName(), true);

  EXPECT_TRUE(BindUnix(fd.Get(), address));

  sockaddr_un bound{};
  socklen_t size = sizeof bound;
  ASSERT_EQ(::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&bound), &size), 0);
  EXPECT_EQ(size, address.mLen);
  EXPECT_EQ(std::string(bound.sun_path + 1, AbstractName().size()), AbstractName());
}

TEST(BindUnix, TakesTheLongestNamesOfBothKinds) {
  const UniqueFd fd = MakeSocket(AF_UNIX, SOCK_STREAM);
  const UniqueFd other = MakeSocket(AF_UNIX, SOCK_STREAM);
  const SocketDir dir;
  const std::string directory = dir.File().substr(0, dir.File().rfind('/'));
  const std::string file = directory + '/' + std::string(106 - directory.size(), 'f');

  EXPECT_TRUE(BindUnix(fd.Get(), UnixAddress(AbstractName() + std::string(106 - AbstractName().size(), 'n'), true)));
  EXPECT_TRUE(BindUnix(other.Get(), UnixAddress(file, false)));

  EXPECT_EQ(::unlink(file.c_str()), 0);
}

TEST(BindUnix, FailsForANameInUse) {
  const SocketDir dir;
  const UnixAddress address(dir.File(), false);
  const UniqueFd first = MakeSocket(AF_UNIX, SOCK_STREAM);
  const UniqueFd second = MakeSocket(AF_UNIX, SOCK_STREAM);
  ASSERT_TRUE(BindUnix(first.Get(), address));

  EXPECT_FALSE(BindUnix(second.Get(), address));

  EXPECT_EQ(errno, EADDRINUSE);
}

TEST(BindUnix, InvalidAddressLeavesTheSocketUnbound) {
  const UniqueFd fd = MakeSocket(AF_UNIX, SOCK_STREAM);

  EXPECT_FALSE(BindUnix(fd.Get(), UnixAddress("", false)));
  EXPECT_FALSE(BindUnix(fd.Get(), UnixAddress(std::string(107, 'n'), true)));
  EXPECT_FALSE(BindUnix(-1, UnixAddress(AbstractName(), true)));

  EXPECT_TRUE(BindUnix(fd.Get(), UnixAddress(AbstractName(), true))) << "still free to be bound";
}

TEST(ConnectUnix, ReachesAFileAndAnAbstractName) {
  const SocketDir dir;
  for (const UnixAddress& address : {UnixAddress(dir.File(), false), UnixAddress(AbstractName(), true)}) {
    const UniqueFd listener = MakeSocket(AF_UNIX, SOCK_STREAM);
    ASSERT_TRUE(BindUnix(listener.Get(), address));
    ASSERT_EQ(::listen(listener.Get(), 1), 0);
    const UniqueFd fd = MakeSocket(AF_UNIX, SOCK_STREAM);

    EXPECT_TRUE(ConnectUnix(fd.Get(), address));

    EXPECT_TRUE(HasConnection(listener));
  }
}

TEST(ConnectUnix, FailsWhereNobodyListens) {
  const SocketDir dir;
  const UniqueFd fd = MakeSocket(AF_UNIX, SOCK_STREAM);

  EXPECT_FALSE(ConnectUnix(fd.Get(), UnixAddress(dir.File(), false)));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(ConnectUnix(fd.Get(), UnixAddress(AbstractName(), true)));
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(ConnectUnix, FailsForAnInvalidAddressAndNoDescriptor) {
  const UniqueFd fd = MakeSocket(AF_UNIX, SOCK_STREAM);

  EXPECT_FALSE(ConnectUnix(fd.Get(), UnixAddress("", true)));
  EXPECT_FALSE(ConnectUnix(-1, UnixAddress(AbstractName(), true)));
}

TEST(ConnectUnix, NonBlockingDescriptorDoesNotWait) {
  const SocketDir dir;
  const UniqueFd listener = MakeSocket(AF_UNIX, SOCK_STREAM);
  ASSERT_TRUE(BindUnix(listener.Get(), UnixAddress(dir.File(), false)));
  ASSERT_EQ(::listen(listener.Get(), 0), 0);
  const UniqueFd first = MakeSocket(AF_UNIX, SOCK_STREAM);
  const UniqueFd second = MakeSocket(AF_UNIX, SOCK_STREAM);
  ASSERT_TRUE(ConnectUnix(first.Get(), UnixAddress(dir.File(), false)));
  ASSERT_TRUE(SetNonBlocking(second.Get(), true));

  EXPECT_FALSE(ConnectUnix(second.Get(), UnixAddress(dir.File(), false))) << "the backlog is full";

  EXPECT_EQ(errno, EAGAIN);
}

TEST(BindInet, BindsTheAddressAndLetsTheKernelChooseAPort) {
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_TRUE(BindInet(fd.Get(), "127.0.0.5", 0, false));

  EXPECT_EQ(GetAddress(NameOf(fd)).first, "127.0.0.5");
  EXPECT_NE(GetAddress(NameOf(fd)).second, 0);
}

TEST(BindInet, BindsTheAnyAddress) {
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_DGRAM);

  EXPECT_TRUE(BindInet(fd.Get(), "0.0.0.0", 0, false));

  EXPECT_EQ(GetAddress(NameOf(fd)).first, "0.0.0.0");
}

TEST(BindInet, ReuseSetsBothOptions) {
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_TRUE(BindInet(fd.Get(), "127.0.0.1", 0, true));

  EXPECT_EQ(FlagOf(fd, SO_REUSEADDR), 1);
  EXPECT_EQ(FlagOf(fd, SO_REUSEPORT), 1);
}

TEST(BindInet, WithoutReuseBothOptionsAreCleared) {
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);
  const int on = 1;
  ASSERT_EQ(::setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
  ASSERT_EQ(::setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on), 0);

  EXPECT_TRUE(BindInet(fd.Get(), "127.0.0.1", 0, false));

  EXPECT_EQ(FlagOf(fd, SO_REUSEADDR), 0);
  EXPECT_EQ(FlagOf(fd, SO_REUSEPORT), 0);
}

TEST(BindInet, ReuseSharesAPortBetweenListeners) {
  const UniqueFd first = MakeSocket(AF_INET, SOCK_STREAM);
  const UniqueFd second = MakeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(BindInet(first.Get(), "127.0.0.1", 0, true));
  ASSERT_EQ(::listen(first.Get(), 1), 0);

  EXPECT_TRUE(BindInet(second.Get(), "127.0.0.1", GetAddress(NameOf(first)).second, true));

  EXPECT_EQ(NameOf(second).sin_port, NameOf(first).sin_port);
}

TEST(BindInet, WithoutReuseAPortIsTakenOnce) {
  const UniqueFd listener = Listener();
  const UniqueFd second = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_FALSE(BindInet(second.Get(), "127.0.0.1", GetAddress(NameOf(listener)).second, false));

  EXPECT_EQ(errno, EADDRINUSE);
}

TEST(BindInet, RefusedTextKeepsTheOptionsSet) {
  for (const char* text : {"127.0.0", "localhost", "::1", "127.0.0.1 "}) {
    const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

    EXPECT_FALSE(BindInet(fd.Get(), text, 0, true)) << text;

    EXPECT_EQ(FlagOf(fd, SO_REUSEADDR), 1);
    EXPECT_EQ(FlagOf(fd, SO_REUSEPORT), 1);
    EXPECT_EQ(NameOf(fd).sin_port, 0) << "unbound";
  }
}

TEST(BindInet, EmptyTextAndNoDescriptorTouchNothing) {
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_FALSE(BindInet(fd.Get(), "", 0, true));
  EXPECT_FALSE(BindInet(-1, "127.0.0.1", 0, true));

  EXPECT_EQ(FlagOf(fd, SO_REUSEADDR), 0);
}

TEST(BindInet, FailsForAnAddressOfAnotherMachine) {
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_FALSE(BindInet(fd.Get(), "192.0.2.1", 0, false));

  EXPECT_EQ(errno, EADDRNOTAVAIL);
}

TEST(ConnectInet, ConnectsStreamsAndDatagrams) {
  const UniqueFd listener = Listener();
  const UniqueFd receiver = BoundSocket(SOCK_DGRAM);
  const UniqueFd stream = MakeSocket(AF_INET, SOCK_STREAM);
  const UniqueFd datagram = MakeSocket(AF_INET, SOCK_DGRAM);

  EXPECT_TRUE(ConnectInet(stream.Get(), NameOf(listener), SOCK_STREAM));
  EXPECT_TRUE(ConnectInet(datagram.Get(), NameOf(receiver), SOCK_DGRAM));

  EXPECT_TRUE(HasConnection(listener));
  EXPECT_EQ(PeerOf(stream).sin_port, NameOf(listener).sin_port);
  EXPECT_EQ(PeerOf(datagram).sin_port, NameOf(receiver).sin_port);
}

TEST(ConnectInet, OtherTypesStayUnconnected) {
  const UniqueFd receiver = BoundSocket(SOCK_DGRAM);
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_DGRAM);

  EXPECT_FALSE(ConnectInet(fd.Get(), NameOf(receiver), 0));
  EXPECT_FALSE(ConnectInet(fd.Get(), NameOf(receiver), SOCK_RAW));
  EXPECT_FALSE(ConnectInet(-1, NameOf(receiver), SOCK_DGRAM));

  EXPECT_EQ(NameOf(fd).sin_port, 0) << "connect would have bound it";
}

TEST(ConnectInet, FailsWhereNobodyListens) {
  const UniqueFd closed = BoundSocket(SOCK_STREAM);
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_FALSE(ConnectInet(fd.Get(), NameOf(closed), SOCK_STREAM));

  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(ConnectInetByName, ConnectsStreamsAndDatagrams) {
  const UniqueFd listener = Listener();
  const UniqueFd receiver = BoundSocket(SOCK_DGRAM);
  const UniqueFd stream = MakeSocket(AF_INET, SOCK_STREAM);
  const UniqueFd datagram = MakeSocket(AF_INET, SOCK_DGRAM);

  EXPECT_TRUE(ConnectInet(stream.Get(), "127.0.0.1", GetAddress(NameOf(listener)).second, SOCK_STREAM));
  EXPECT_TRUE(ConnectInet(datagram.Get(), "127.0.0.1", GetAddress(NameOf(receiver)).second, SOCK_DGRAM));

  EXPECT_TRUE(HasConnection(listener));
  EXPECT_EQ(PeerOf(stream).sin_port, NameOf(listener).sin_port);
  EXPECT_EQ(PeerOf(datagram).sin_port, NameOf(receiver).sin_port);
}

TEST(ConnectInetByName, ResolvesAName) {
  const UniqueFd listener = Listener();
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_TRUE(ConnectInet(fd.Get(), "localhost", GetAddress(NameOf(listener)).second, SOCK_STREAM));

  EXPECT_TRUE(HasConnection(listener));
}

TEST(ConnectInetByName, FailsForArgumentsItCannotUse) {
  const UniqueFd listener = Listener();
  const unsigned short port = GetAddress(NameOf(listener)).second;
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_FALSE(ConnectInet(fd.Get(), "", port, SOCK_STREAM));
  EXPECT_FALSE(ConnectInet(fd.Get(), "127.0.0.1", 0, SOCK_STREAM));
  EXPECT_FALSE(ConnectInet(fd.Get(), "127.0.0.1", port, 0));
  EXPECT_FALSE(ConnectInet(fd.Get(), "127.0.0.1", port, SOCK_RAW));
  EXPECT_FALSE(ConnectInet(-1, "127.0.0.1", port, SOCK_STREAM));

  EXPECT_TRUE(ConnectInet(fd.Get(), "127.0.0.1", port, SOCK_STREAM)) << "still free to be connected";
}

TEST(ConnectInetByName, FailsForAnIPv6Address) {
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_FALSE(ConnectInet(fd.Get(), "::1", 9, SOCK_STREAM));
}

TEST(ConnectInetByName, FailsWhereNobodyListens) {
  const UniqueFd closed = BoundSocket(SOCK_STREAM);
  const UniqueFd fd = MakeSocket(AF_INET, SOCK_STREAM);

  EXPECT_FALSE(ConnectInet(fd.Get(), "127.0.0.1", GetAddress(NameOf(closed)).second, SOCK_STREAM));

  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(DrainAndShutdown, WithoutSecondsHalfClosesAndReadsNothing) {
  const auto [fd, peer] = test::SocketPair();
  Send(peer, "left");

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 0));

  EXPECT_EQ(RecvNow(peer), 0) << "the peer sees the end";
  EXPECT_EQ(RecvNow(fd), 4) << "nothing was drained";
}

TEST(DrainAndShutdown, DiscardsWhatCameUntilThePeerCloses) {
  auto [fd, peer] = test::SocketPair();
  Send(peer, std::string(2000, 'x'));
  peer.Reset();

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 30));

  EXPECT_EQ(RecvNow(fd), 0);
  EXPECT_TRUE(test::IsOpen(fd.Get()));
}

TEST(DrainAndShutdown, EndsWhenThePeerHasBeenSilent) {
  const auto [fd, peer] = test::SocketPair();
  Send(peer, "x");
  const auto start = std::chrono::steady_clock::now();

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 1));

  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));
  EXPECT_EQ(RecvNow(fd), -1) << "drained, and not at the end";
}

TEST(DrainAndShutdown, LeavesTheReceiveTimeoutSet) {
  auto [fd, peer] = test::SocketPair();
  peer.Reset();

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 12));

  timeval limit{};
  socklen_t size = sizeof limit;
  ASSERT_EQ(::getsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, &size), 0);
  EXPECT_EQ(limit.tv_sec, 12);
  EXPECT_EQ(limit.tv_usec, 0);
}

// The peer sends for longer than the limit, with pauses far below it.
TEST(DrainAndShutdown, LimitCountsFromTheLastByte) {
  auto [fd, peer] = test::SocketPair();
  const std::future<void> sender = std::async(std::launch::async, [mine = std::move(peer)] {
    for (int i = 0; i < 7; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(400));
      (void)::send(mine.Get(), "x", 1, MSG_NOSIGNAL);
    }
    (void)::shutdown(mine.Get(), SHUT_WR);
  });
  const auto start = std::chrono::steady_clock::now();

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 2));

  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2750));
  EXPECT_EQ(RecvNow(fd), 0) << "drained to the end";
}

TEST(DrainAndShutdown, SucceedsWhereNothingCanBeShutDown) {
  const UniqueFd unconnected = MakeSocket(AF_INET, SOCK_STREAM);
  const UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));

  EXPECT_TRUE(DrainAndShutdown(unconnected.Get(), 1));
  EXPECT_TRUE(DrainAndShutdown(file.Get(), 1));
  EXPECT_TRUE(DrainAndShutdown(file.Get(), 0));
}

TEST(DrainAndShutdown, FailsWithoutADescriptor) {
  EXPECT_FALSE(DrainAndShutdown(-1, 0));
  EXPECT_FALSE(DrainAndShutdown(-1, 1));
}

}  // namespace
}  // namespace kiv::net
