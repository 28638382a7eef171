#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;

UniqueFd MakeSocket(int domain, int type) { return UniqueFd(::socket(domain, type | SOCK_CLOEXEC, 0)); }

std::pair<UniqueFd, UniqueFd> DatagramPair() {
  int fds[2] = {-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds), 0);
  return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

// An abstract name of at least 9 bytes that no other process uses.
std::string OwnName(std::size_t size) {
  std::string name = "kt" + std::to_string(::getpid());
  name.resize(size, '.');
  return name;
}

// A datagram socket bound to the name, whose length is that of UnixAddress.
UniqueFd BoundTo(const std::string& path, bool abstract) {
  UniqueFd fd = MakeSocket(AF_UNIX, SOCK_DGRAM);
  const UnixAddress address(path, abstract);
  EXPECT_TRUE(address.mValid);
  EXPECT_EQ(::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address.mAddr), address.mLen), 0) << errno;
  return fd;
}

sockaddr_un Address(const std::string& path, bool abstract) {
  sockaddr_un addr;
  EXPECT_TRUE(SetAddress(addr, path, abstract));
  return addr;
}

sockaddr_in NameOf(const UniqueFd& fd) {
  sockaddr_in addr{};
  socklen_t size = sizeof addr;
  EXPECT_EQ(::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&addr), &size), 0);
  return addr;
}

UniqueFd BoundUdp() {
  UniqueFd fd = MakeSocket(AF_INET, SOCK_DGRAM);
  const sockaddr_in any = test::Loopback(0);
  EXPECT_EQ(::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
  return fd;
}

std::pair<UniqueFd, UniqueFd> TcpPair() {
  const UniqueFd listener = MakeSocket(AF_INET, SOCK_STREAM);
  const sockaddr_in any = test::Loopback(0);
  EXPECT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
  EXPECT_EQ(::listen(listener.Get(), 1), 0);
  const sockaddr_in server = NameOf(listener);
  UniqueFd client = MakeSocket(AF_INET, SOCK_STREAM);
  EXPECT_EQ(::connect(client.Get(), reinterpret_cast<const sockaddr*>(&server), sizeof server), 0);
  return {std::move(client), UniqueFd(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC))};
}

void Send(const UniqueFd& fd, const std::string& bytes) {
  EXPECT_EQ(::send(fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i % 251);
  }
  return bytes;
}

std::string Text(const std::vector<char>& bytes) { return {bytes.begin(), bytes.end()}; }

// What waits on a datagram socket, or "nothing".
std::string Waiting(const UniqueFd& fd) {
  char bytes[64];
  const ssize_t size = ::recv(fd.Get(), bytes, sizeof bytes, MSG_DONTWAIT);
  return size < 0 ? "nothing" : std::string(bytes, static_cast<std::size_t>(size));
}

void SetTimeout(const UniqueFd& fd, int option, long milliseconds) {
  timeval time{};
  time.tv_sec = milliseconds / 1000;
  time.tv_usec = milliseconds % 1000 * 1000;
  EXPECT_EQ(::setsockopt(fd.Get(), SOL_SOCKET, option, &time, sizeof time), 0);
}

void SetNonBlocking(const UniqueFd& fd) { EXPECT_EQ(::fcntl(fd.Get(), F_SETFL, O_NONBLOCK), 0); }

// Sends the calling thread a signal without SA_RESTART every millisecond, for a minute at most.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction ignored = {};
    ignored.sa_handler = [](int) {};
    EXPECT_EQ(::sigaction(SIGUSR1, &ignored, &mSaved), 0);
    mThread = std::thread([this, target = ::pthread_self()] {
      for (int i = 0; i < 60 * 1000 && !mEnd; ++i) {
        (void)::pthread_kill(target, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;
  ~Interruptions() {
    mEnd = true;
    mThread.join();
    (void)::sigaction(SIGUSR1, &mSaved, nullptr);
  }

 private:
  struct sigaction mSaved = {};
  std::atomic<bool> mEnd{false};
  std::thread mThread;
};

// ----------------------------------------------------------------------------------------------------- RecvEager

TEST(RecvEager, NothingQueuedReturnsAtOnceOnABlockingSocket) {
  const auto [near, far] = test::SocketPair();
  std::vector<char> out{'o', 'l', 'd'};

  EXPECT_EQ(RecvEager(near.Get(), out), 0U);

  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(Text(out), "old");
  EXPECT_EQ(::fcntl(near.Get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(RecvEager, TakesAllThatIsQueued) {
  for (const std::size_t size : {1U, 2047U, 2048U, 2049U, 4096U, 5000U}) {
    const auto [near, far] = test::SocketPair();
    Send(far, Pattern(size));
    std::vector<char> out;

    EXPECT_EQ(RecvEager(near.Get(), out), size);

    EXPECT_EQ(Text(out), Pattern(size));
    EXPECT_EQ(RecvEager(near.Get(), out), 0U);
    EXPECT_EQ(out.size(), size);
  }
}

TEST(RecvEager, AppendsBehindWhatIsThere) {
  const auto [near, far] = test::SocketPair();
  std::vector<char> out{'o', 'l', 'd'};
  Send(far, "new");

  EXPECT_EQ(RecvEager(near.Get(), out), 3U);

  EXPECT_EQ(Text(out), "oldnew");
}

TEST(RecvEager, TakesWhatAPeerLeftBeforeItClosed) {
  auto [near, far] = test::SocketPair();
  Send(far, Pattern(10));
  far.Reset();
  std::vector<char> out;

  EXPECT_EQ(RecvEager(near.Get(), out), 10U);
  EXPECT_EQ(RecvEager(near.Get(), out), 0U);

  EXPECT_EQ(Text(out), Pattern(10));
}

TEST(RecvEager, EndOfStreamLeavesErrnoAlone) {
  auto [near, far] = test::SocketPair();
  far.Reset();
  std::vector<char> out;
  errno = 0;

  EXPECT_EQ(RecvEager(near.Get(), out), 0U);

  EXPECT_EQ(errno, 0);
}

TEST(RecvEager, EmptiesAFullSocket) {
  const auto [near, far] = test::SocketPair();
  const std::string chunk = Pattern(10007);
  std::string sent;
  for (ssize_t size = 1; size > 0;) {
    size = ::send(far.Get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
    sent.append(chunk, 0, size > 0 ? static_cast<std::size_t>(size) : 0);
  }
  ASSERT_GT(sent.size(), 50U * 2048U);
  std::vector<char> out;

  EXPECT_EQ(RecvEager(near.Get(), out), sent.size());

  EXPECT_TRUE(Text(out) == sent);
}

TEST(RecvEager, ThreadsKeepTheirBytesApart) {
  const auto readOwnBytes = [](char own, bool& intact) {
    const auto [reader, writer] = test::SocketPair();
    const std::string sent(2048, own);
    intact = true;
    for (int round = 0; round < 2000; ++round) {
      (void)::send(writer.Get(), sent.data(), sent.size(), 0);
      std::vector<char> received;
      (void)RecvEager(reader.Get(), received);
      intact = intact && std::string(received.begin(), received.end()) == sent;
    }
  };
  bool intactHere = false;
  bool intactThere = false;

  std::thread other(readOwnBytes, 'b', std::ref(intactThere));
  readOwnBytes('a', intactHere);
  other.join();

  EXPECT_TRUE(intactHere && intactThere);
}

TEST(RecvEager, DatagramsStandBackToBack) {
  const auto [near, far] = DatagramPair();
  for (const char* text : {"one", "two", "three"}) {
    Send(far, text);
  }
  std::vector<char> out;

  EXPECT_EQ(RecvEager(near.Get(), out), 11U);

  EXPECT_EQ(Text(out), "onetwothree");
}

TEST(RecvEager, DatagramIsCutAt2048Bytes) {
  const auto [near, far] = DatagramPair();
  Send(far, std::string(2048, 'a'));
  Send(far, std::string(2049, 'b'));
  Send(far, std::string(9000, 'c'));
  Send(far, "d");
  std::vector<char> out;

  EXPECT_EQ(RecvEager(near.Get(), out), 3U * 2048U + 1U);

  EXPECT_EQ(Text(out), std::string(2048, 'a') + std::string(2048, 'b') + std::string(2048, 'c') + 'd');
}

TEST(RecvEager, EmptyDatagramReadsAsAnEnd) {
  const auto [near, far] = DatagramPair();
  for (const char* text : {"one", "", "two"}) {
    Send(far, text);
  }
  std::vector<char> out;

  EXPECT_EQ(RecvEager(near.Get(), out), 3U);
  EXPECT_EQ(Text(out), "one");
  EXPECT_EQ(RecvEager(near.Get(), out), 3U);
  EXPECT_EQ(Text(out), "onetwo");
}

TEST(RecvEager, PendingErrorEndsTheCall) {
  const UniqueFd socket = BoundUdp();
  const sockaddr_in nobody = NameOf(BoundUdp());
  ASSERT_EQ(::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&nobody), sizeof nobody), 0);
  Send(socket, "x");
  pollfd refused{socket.Get(), 0, 0};
  ASSERT_EQ(::poll(&refused, 1, 10 * 1000), 1);
  std::vector<char> out{'o'};

  EXPECT_EQ(RecvEager(socket.Get(), out), 0U);

  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(Text(out), "o");
}

TEST(RecvEager, DescriptorThatIsNoSocketGivesNothing) {
  const UniqueFd event = test::EventFd(1);
  std::vector<char> out{'o'};

  EXPECT_EQ(RecvEager(-1, out), 0U);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(RecvEager(event.Get(), out), 0U);
  EXPECT_EQ(errno, ENOTSOCK);

  EXPECT_EQ(Text(out), "o");
  EXPECT_TRUE(test::IsReadable(event.Get()));
}

// ---------------------------------------------------------------------------------------------- unix datagrams

TEST(SendToUnix, ReachesTheNameThatUnixAddressBinds) {
  for (const std::size_t size : {9U, 20U, 105U, 106U}) {
    const std::string name = OwnName(size);
    const UniqueFd receiver = BoundTo(name, true);
    const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);

    EXPECT_EQ(SendTo(sender.Get(), "hello", 5, Address(name, true)), 5) << errno;

    EXPECT_EQ(Waiting(receiver), "hello");
  }
}

// Abstract names differ by their length as well, so one byte more or less in the address misses the receiver.
TEST(SendToUnix, NameOfFourBytesHasLength7) {
  const std::string digits = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-";
  std::string name;
  for (int bits = ::getpid(); name.size() < 4; bits >>= 6) {
    name += digits[static_cast<std::size_t>(bits & 63)];
  }
  ASSERT_EQ(UnixAddress(name, true).mLen, 7U);
  const UniqueFd receiver = BoundTo(name, true);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);

  EXPECT_EQ(SendTo(sender.Get(), "x", 1, Address(name, true)), 1) << errno;

  EXPECT_EQ(Waiting(receiver), "x");
}

TEST(SendToUnix, AbstractNameEndsAtItsFirstNulByte) {
  const std::string shorter = OwnName(12);
  const std::string whole = shorter + std::string("\0x", 2);
  const UniqueFd shortReceiver = BoundTo(shorter, true);
  const UniqueFd wholeReceiver = BoundTo(whole, true);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);

  EXPECT_EQ(SendTo(sender.Get(), "x", 1, Address(whole, true)), 1) << errno;

  EXPECT_EQ(Waiting(shortReceiver), "x");
  EXPECT_EQ(Waiting(wholeReceiver), "nothing");
}

// SetAddress refuses such a name; an address filled otherwise may have it.
TEST(SendToUnix, AbstractNameMayFillTheArray) {
  const auto address = std::make_unique<sockaddr_un>();  // Alone on the heap, for a read behind it to be seen.
  address->sun_family = AF_UNIX;
  (void)OwnName(107).copy(address->sun_path + 1, 107);
  const UniqueFd receiver = MakeSocket(AF_UNIX, SOCK_DGRAM);
  ASSERT_EQ(::bind(receiver.Get(), reinterpret_cast<const sockaddr*>(address.get()), sizeof(sockaddr_un)), 0);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);

  EXPECT_EQ(SendTo(sender.Get(), "x", 1, *address), 1) << errno;

  EXPECT_EQ(Waiting(receiver), "x");
}

// The kernel takes an address without any name for EINVAL, and looks for the empty abstract name with one byte more.
TEST(SendToUnix, AllZeroPathIsTheEmptyAbstractName) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);

  EXPECT_EQ(SendTo(sender.Get(), "x", 1, address), -1);

  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(SendToUnix, ReachesAFile) {
  const test::TempFolder folder;
  for (const std::size_t size : {std::size_t{15}, std::size_t{106}, std::size_t{107}}) {
    std::string path = folder.Path() + '/';
    path.resize(size, 'p');
    const UniqueFd receiver = BoundTo(path, false);
    const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);

    EXPECT_EQ(SendTo(sender.Get(), "hello", 5, Address(path, false)), 5) << errno;

    EXPECT_EQ(Waiting(receiver), "hello");
  }
}

TEST(SendToUnix, FileNameMayFillTheArrayWithoutTerminator) {
  const test::TempFolder folder;
  std::string path = folder.Path() + '/';
  path.resize(108, 'p');
  const auto address = std::make_unique<sockaddr_un>();
  address->sun_family = AF_UNIX;
  (void)path.copy(address->sun_path, sizeof address->sun_path);
  const UniqueFd receiver = MakeSocket(AF_UNIX, SOCK_DGRAM);
  ASSERT_EQ(::bind(receiver.Get(), reinterpret_cast<const sockaddr*>(address.get()), sizeof(sockaddr_un)), 0);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);

  EXPECT_EQ(SendTo(sender.Get(), "x", 1, *address), 1) << errno;

  EXPECT_EQ(Waiting(receiver), "x");
}

TEST(SendToUnix, SendsBytesAsTheyAre) {
  const std::string name = OwnName(9);
  const UniqueFd receiver = BoundTo(name, true);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);
  const std::string bytes("a\0b\n", 4);

  EXPECT_EQ(SendTo(sender.Get(), bytes.data(), 4, Address(name, true)), 4);
  EXPECT_EQ(SendTo(sender.Get(), bytes.data(), 0, Address(name, true)), 0);

  EXPECT_EQ(Waiting(receiver), bytes);
  EXPECT_EQ(Waiting(receiver), "");
}

TEST(SendToUnix, FailurePassesThrough) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/socket";
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);

  EXPECT_EQ(SendTo(sender.Get(), "x", 1, Address(path, false)), -1);
  EXPECT_EQ(errno, ENOENT);

  (void)BoundTo(path, false);
  EXPECT_EQ(SendTo(sender.Get(), "x", 1, Address(path, false)), -1);
  EXPECT_EQ(errno, ECONNREFUSED);

  EXPECT_EQ(SendTo(-1, "x", 1, Address(path, false)), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(SendToUnix, TooLargeADatagramFails) {
  const std::string name = OwnName(9);
  const UniqueFd receiver = BoundTo(name, true);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);
  const std::string large(64 << 20, 'x');

  EXPECT_EQ(SendTo(sender.Get(), large.data(), static_cast<unsigned>(large.size()), Address(name, true)), -1);

  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(Waiting(receiver), "nothing");
}

void FillQueue(const UniqueFd& sender, const sockaddr_un& to, std::size_t nameSize) {
  const auto length = static_cast<socklen_t>(nameSize + 3);
  while (::sendto(sender.Get(), "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to), length) == 1) {
  }
  EXPECT_EQ(errno, EAGAIN);
}

TEST(SendToUnix, BlocksAsTheDescriptorDoes) {
  const std::string name = OwnName(9);
  const UniqueFd receiver = BoundTo(name, true);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);
  const sockaddr_un to = Address(name, true);
  FillQueue(sender, to, name.size());
  SetTimeout(sender, SO_SNDTIMEO, 50);

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(SendTo(sender.Get(), "x", 1, to), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));

  SetTimeout(sender, SO_SNDTIMEO, 0);
  SetNonBlocking(sender);
  EXPECT_EQ(SendTo(sender.Get(), "x", 1, to), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(SendToUnix, InterruptedCallIsNotRetried) {
  const std::string name = OwnName(9);
  const UniqueFd receiver = BoundTo(name, true);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);
  const sockaddr_un to = Address(name, true);
  FillQueue(sender, to, name.size());
  SetTimeout(sender, SO_SNDTIMEO, 10 * 1000);
  const Interruptions signals;

  EXPECT_EQ(SendTo(sender.Get(), "x", 1, to), -1);

  EXPECT_EQ(errno, EINTR);
}

TEST(RecvFromUnix, TellsTheSendersAbstractName) {
  const std::string name = OwnName(9);
  const UniqueFd receiver = BoundTo(name, true);
  const UniqueFd sender = BoundTo(OwnName(106), true);
  ASSERT_EQ(SendTo(sender.Get(), "hello", 5, Address(name, true)), 5);
  char bytes[16];
  const auto from = std::make_unique<sockaddr_un>();

  EXPECT_EQ(RecvFrom(receiver.Get(), bytes, sizeof bytes, *from), 5);

  EXPECT_EQ(std::string(bytes, 5), "hello");
  EXPECT_EQ(from->sun_family, AF_UNIX);
  EXPECT_EQ(std::string(from->sun_path, 107), '\0' + OwnName(106));
}

TEST(RecvFromUnix, AnswerReachesTheSendersFile) {
  const test::TempFolder folder;
  const UniqueFd server = BoundTo(folder.Path() + "/server", false);
  const UniqueFd client = BoundTo(folder.Path() + "/client", false);
  ASSERT_EQ(SendTo(client.Get(), "ask", 3, Address(folder.Path() + "/server", false)), 3);
  char bytes[16];
  sockaddr_un from{};

  ASSERT_EQ(RecvFrom(server.Get(), bytes, sizeof bytes, from), 3);
  EXPECT_EQ(SendTo(server.Get(), "answer", 6, from), 6);

  EXPECT_EQ(from.sun_path, folder.Path() + "/client");
  EXPECT_EQ(Waiting(client), "answer");
}

// The kernel gives 108 bytes of path, and no terminator, to a caller that has room for 110 bytes.
TEST(RecvFromUnix, SendersNameMayFillTheArray) {
  const test::TempFolder folder;
  std::string path = folder.Path() + '/';
  path.resize(108, 'p');
  sockaddr_un own{};
  own.sun_family = AF_UNIX;
  (void)path.copy(own.sun_path, sizeof own.sun_path);
  const UniqueFd sender = MakeSocket(AF_UNIX, SOCK_DGRAM);
  ASSERT_EQ(::bind(sender.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
  const UniqueFd receiver = BoundTo(OwnName(9), true);
  ASSERT_EQ(SendTo(sender.Get(), "x", 1, Address(OwnName(9), true)), 1);
  char byte = '\0';
  const auto from = std::make_unique<sockaddr_un>();

  EXPECT_EQ(RecvFrom(receiver.Get(), &byte, 1, *from), 1);

  EXPECT_EQ(std::string(from->sun_path, sizeof from->sun_path), path);
}

TEST(RecvFromUnix, UnnamedSenderLeavesTheAddressAlone) {
  const auto [near, far] = DatagramPair();
  Send(far, "x");
  char byte = '\0';
  sockaddr_un from{};
  from.sun_family = AF_INET;
  from.sun_path[0] = '?';

  EXPECT_EQ(RecvFrom(near.Get(), &byte, 1, from), 1);

  EXPECT_EQ(from.sun_family, AF_INET);
  EXPECT_EQ(from.sun_path[0], '?');
}

TEST(RecvFromUnix, LongerDatagramIsCutAndTaken) {
  const auto [near, far] = DatagramPair();
  Send(far, "abcdef");
  Send(far, "next");
  char bytes[8] = "???????";
  sockaddr_un from{};

  EXPECT_EQ(RecvFrom(near.Get(), bytes, 3, from), 3);
  EXPECT_STREQ(bytes, "abc????");
  EXPECT_EQ(RecvFrom(near.Get(), bytes, 7, from), 4);
  EXPECT_STREQ(bytes, "next???");
}

TEST(RecvFromUnix, StreamEndAndEmptyDatagramAreZero) {
  auto [near, far] = test::SocketPair();
  const auto [datagramNear, datagramFar] = DatagramPair();
  far.Reset();
  Send(datagramFar, "");
  char byte = '\0';
  sockaddr_un from{};

  EXPECT_EQ(RecvFrom(near.Get(), &byte, 1, from), 0);
  EXPECT_EQ(RecvFrom(datagramNear.Get(), &byte, 1, from), 0);
}

// ---------------------------------------------------------------------------------------------- IPv4 datagrams

TEST(SendToInet, ReceiverSeesTheSendersAddress) {
  const UniqueFd receiver = BoundUdp();
  const UniqueFd sender = BoundUdp();
  const std::string bytes("a\0b\n", 4);
  char buffer[16];
  const auto from = std::make_unique<sockaddr_in>();
  std::fill(std::begin(from->sin_zero), std::end(from->sin_zero), '?');

  EXPECT_EQ(SendTo(sender.Get(), bytes.data(), 4, NameOf(receiver)), 4);
  EXPECT_EQ(RecvFrom(receiver.Get(), buffer, sizeof buffer, *from), 4);

  EXPECT_EQ(std::string(buffer, 4), bytes);
  EXPECT_EQ(from->sin_family, AF_INET);
  EXPECT_EQ(from->sin_port, NameOf(sender).sin_port);
  EXPECT_EQ(from->sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(std::count(std::begin(from->sin_zero), std::end(from->sin_zero), '\0'), 8);
}

TEST(SendToInet, AddressMadeFromTextIsReached) {
  const UniqueFd receiver = BoundUdp();
  const UniqueFd sender = MakeSocket(AF_INET, SOCK_DGRAM);
  sockaddr_in to;
  ASSERT_TRUE(SetAddress(to, "127.0.0.1", ntohs(NameOf(receiver).sin_port)));

  EXPECT_EQ(SendTo(sender.Get(), "x", 1, to), 1);

  EXPECT_EQ(Waiting(receiver), "x");
}

TEST(SendToInet, FailurePassesThrough) {
  const UniqueFd receiver = BoundUdp();
  const UniqueFd unixSocket = MakeSocket(AF_UNIX, SOCK_DGRAM);
  const std::string large(70000, 'x');

  EXPECT_EQ(SendTo(receiver.Get(), large.data(), 70000, NameOf(receiver)), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(SendTo(unixSocket.Get(), "x", 1, NameOf(receiver)), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(SendTo(-1, "x", 1, NameOf(receiver)), -1);
  EXPECT_EQ(errno, EBADF);
}

// Without MSG_NOSIGNAL.
TEST(SendToInet, RaisesSigpipeOnAStreamShutForWriting) {
  const test::SignalMaskRestorer restorer;
  test::Block(SIGPIPE);
  const auto [near, far] = TcpPair();
  ASSERT_EQ(::shutdown(near.Get(), SHUT_WR), 0);

  EXPECT_EQ(SendTo(near.Get(), "x", 1, NameOf(near)), -1);

  EXPECT_EQ(errno, EPIPE);
  EXPECT_TRUE(test::IsPending(SIGPIPE));
}

int SendUntilItFails(const UniqueFd& stream) {
  const std::string chunk(1 << 20, 'x');
  int result = 1;
  while (result > 0) {
    result = SendTo(stream.Get(), chunk.data(), static_cast<unsigned>(chunk.size()), NameOf(stream));
  }
  return result;
}

TEST(SendToInet, BlocksAsTheDescriptorDoes) {
  const auto [near, far] = TcpPair();
  SetTimeout(near, SO_SNDTIMEO, 50);

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(SendUntilItFails(near), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));

  SetTimeout(near, SO_SNDTIMEO, 0);
  SetNonBlocking(near);
  EXPECT_EQ(SendUntilItFails(near), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(SendToInet, InterruptedCallIsNotRetried) {
  const auto [near, far] = TcpPair();
  SetTimeout(near, SO_SNDTIMEO, 10 * 1000);
  const Interruptions signals;

  EXPECT_EQ(SendUntilItFails(near), -1);

  EXPECT_EQ(errno, EINTR);
}

TEST(RecvFromInet, LongerDatagramIsCutAndTaken) {
  const UniqueFd socket = BoundUdp();
  const sockaddr_in own = NameOf(socket);
  ASSERT_EQ(::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
  Send(socket, "abcdef");
  Send(socket, "next");
  char bytes[8] = "???????";
  sockaddr_in from{};

  EXPECT_EQ(RecvFrom(socket.Get(), bytes, 3, from), 3);
  EXPECT_STREQ(bytes, "abc????");
  EXPECT_EQ(RecvFrom(socket.Get(), bytes, 7, from), 4);
  EXPECT_STREQ(bytes, "next???");
}

// --------------------------------------------------------------------------------------- either kind of address

template <typename Address>
class RecvFromEither : public testing::Test {};

class AddressName {
 public:
  template <typename Address>
  static std::string GetName(int) {
    return std::is_same_v<Address, sockaddr_un> ? "Unix" : "Inet";
  }
};

using Addresses = testing::Types<sockaddr_un, sockaddr_in>;
TYPED_TEST_SUITE(RecvFromEither, Addresses, AddressName);

template <typename Address>
UniqueFd Silent() {
  return MakeSocket(std::is_same_v<Address, sockaddr_un> ? AF_UNIX : AF_INET, SOCK_DGRAM);
}

TYPED_TEST(RecvFromEither, FailurePassesThrough) {
  const UniqueFd event = test::EventFd(1);
  char byte = '\0';
  TypeParam from{};

  EXPECT_EQ(RecvFrom(-1, &byte, 1, from), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(RecvFrom(event.Get(), &byte, 1, from), -1);
  EXPECT_EQ(errno, ENOTSOCK);
}

TYPED_TEST(RecvFromEither, NonBlockingSocketGivesEagain) {
  const UniqueFd socket = Silent<TypeParam>();
  SetNonBlocking(socket);
  char byte = '\0';
  TypeParam from{};

  EXPECT_EQ(RecvFrom(socket.Get(), &byte, 1, from), -1);

  EXPECT_EQ(errno, EAGAIN);
}

TYPED_TEST(RecvFromEither, BlockingSocketIsWaitedFor) {
  const UniqueFd socket = Silent<TypeParam>();
  SetTimeout(socket, SO_RCVTIMEO, 50);
  char byte = '\0';
  TypeParam from{};

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RecvFrom(socket.Get(), &byte, 1, from), -1);

  EXPECT_EQ(errno, EAGAIN);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
}

TYPED_TEST(RecvFromEither, InterruptedCallIsNotRetried) {
  const UniqueFd socket = Silent<TypeParam>();
  SetTimeout(socket, SO_RCVTIMEO, 10 * 1000);
  const Interruptions signals;
  char byte = '\0';
  TypeParam from{};

  EXPECT_EQ(RecvFrom(socket.Get(), &byte, 1, from), -1);

  EXPECT_EQ(errno, EINTR);
}

}  // namespace
}  // namespace kiv::net
