#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <poll.h>
#include <sys/time.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "interpose.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::CallLog;
using test::CountOpenFds;
using test::Decode;
using test::FailCall;
using test::Fault;
using test::Loopback;
using test::ResolverAnswer;
using test::ReturnFrom;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

// A port of the loopback interface that refuses connections for as long as this exists.
class ClosedPort {
 public:
  ClosedPort() : mFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), mAddress(Loopback(0)) {
    socklen_t size = sizeof mAddress;
    (void)::bind(mFd.Get(), reinterpret_cast<const sockaddr*>(&mAddress), size);
    (void)::getsockname(mFd.Get(), reinterpret_cast<sockaddr*>(&mAddress), &size);
  }

  int Fd() const { return mFd.Get(); }
  const sockaddr_in& Address() const { return mAddress; }

 private:
  UniqueFd mFd;
  sockaddr_in mAddress;
};

// One that takes connections; the kernel completes even those that nobody accepts.
class Listener : public ClosedPort {
 public:
  Listener() { (void)::listen(Fd(), 8); }

  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(ntohs(Address().sin_port)) + path;
  }
};

bool WaitReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 10000) == 1;
}

// Accepts one connection per answer, reads the request and sends the answer in one piece.
void Serve(int listener, const std::vector<std::string>& answers) {
  for (const std::string& answer : answers) {
    if (!WaitReadable(listener)) {
      return;
    }
    const UniqueFd peer(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    char request[4096];
    if (WaitReadable(peer.Get())) {
      (void)::recv(peer.Get(), request, sizeof request, 0);
    }
    (void)::send(peer.Get(), answer.data(), answer.size(), MSG_NOSIGNAL);
  }
}

HttpClient::ParsedUrl UrlOf(const std::string& host, unsigned short port) {
  HttpClient::ParsedUrl url;
  url.host = host;
  url.path = "/";
  url.port = port;
  return url;
}

int ConnectTo(HttpClient& client) { return client.Connect(UrlOf("host", 80)); }

TEST(HttpConnect, AsksForIPv4TcpAndThePortInDecimal) {
  const ResolverAnswer nothing({});
  const CallLog log;
  HttpClient client;

  EXPECT_EQ(client.Connect(UrlOf("device.example", 65535)), -1);

  ASSERT_EQ(log.Of("getaddrinfo").size(), 1U);
  EXPECT_EQ(log.Of("getaddrinfo")[0].args, (Args{0, AF_INET, SOCK_STREAM, IPPROTO_TCP, 0, 0, 0, 0}));
  EXPECT_EQ(log.Of("getaddrinfo")[0].data, "device.example 65535");
  EXPECT_EQ(log.Of("socket").size(), 0U);
}

TEST(HttpConnect, FailedResolverGivesMinusOneAndNothingToFree) {
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault fault = FailCall("getaddrinfo", EIO);
  HttpClient client;

  EXPECT_EQ(ConnectTo(client), -1);

  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(log.Names(), Names{"getaddrinfo"});
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(HttpConnect, SetsUpABlockingSocketBeforeItConnects) {
  const Listener listener;
  const ResolverAnswer answer({listener.Address()});
  const CallLog log;
  HttpClient client;

  const UniqueFd fd(ConnectTo(client));

  ASSERT_EQ(log.Names(),
            (Names{"getaddrinfo", "socket", "setsockopt", "setsockopt", "fcntl", "fcntl", "connect", "freeaddrinfo"}));
  EXPECT_EQ(log.Of("socket")[0].args, (Args{AF_INET, SOCK_STREAM, IPPROTO_TCP}));
  EXPECT_EQ(log.Of("setsockopt")[0].args, (Args{fd.Get(), SOL_SOCKET, SO_SNDTIMEO, sizeof(timeval)}));
  EXPECT_EQ(log.Of("setsockopt")[1].args, (Args{fd.Get(), SOL_SOCKET, SO_RCVTIMEO, sizeof(timeval)}));
  EXPECT_EQ(log.Of("fcntl")[0].args, (Args{fd.Get(), F_GETFL, 0}));
  EXPECT_EQ(log.Of("fcntl")[1].args, (Args{fd.Get(), F_SETFL, O_RDWR}));
  EXPECT_EQ(log.Of("connect")[0].args, (Args{fd.Get(), 16}));
  EXPECT_EQ(Decode<sockaddr_in>(log.Of("connect")[0].data).sin_port, listener.Address().sin_port);
  EXPECT_TRUE(test::IsOpen(fd.Get()));
}

// The seconds that Connect sets for sending and receiving.
std::pair<long long, long long> SecondsSetBy(HttpClient& client) {
  const ResolverAnswer answer({Loopback(1)});
  const CallLog log;
  const Fault refused = FailCall("connect", ECONNREFUSED);
  EXPECT_EQ(ConnectTo(client), -1);
  const auto sending = Decode<timeval>(log.Of("setsockopt").at(0).data);
  const auto receiving = Decode<timeval>(log.Of("setsockopt").at(1).data);
  EXPECT_EQ(sending.tv_usec, 0);
  EXPECT_EQ(receiving.tv_usec, 0);
  return {sending.tv_sec, receiving.tv_sec};
}

TEST(HttpConnect, RoundsTheTimeoutUpToSeconds) {
  const std::vector<std::pair<int, long long>> cases = {{1, 1},    {999, 1},  {1000, 1},         {1001, 2},
                                                        {2000, 2}, {5000, 5}, {INT_MAX, 2147484}};
  for (const auto& [milliseconds, seconds] : cases) {
    HttpClient client;
    ASSERT_TRUE(client.SetTimeout(milliseconds));

    EXPECT_EQ(SecondsSetBy(client), std::make_pair(seconds, seconds)) << milliseconds;
  }
}

TEST(HttpConnect, TimesOutAfterFiveSecondsByDefault) {
  HttpClient fresh;
  HttpClient refused;
  ASSERT_TRUE(refused.SetTimeout(9000));
  ASSERT_FALSE(refused.SetTimeout(0));

  EXPECT_EQ(SecondsSetBy(fresh), std::make_pair(5LL, 5LL));
  EXPECT_EQ(SecondsSetBy(refused), std::make_pair(5LL, 5LL));
}

TEST(HttpConnect, FailedSocketGoesOnToTheNextAddress) {
  const Listener listener;
  const ResolverAnswer answer({Loopback(1), listener.Address()});
  const CallLog log;
  const Fault fault = FailCall("socket", EMFILE);
  HttpClient client;

  const UniqueFd fd(ConnectTo(client));

  EXPECT_TRUE(fd.IsValid());
  ASSERT_EQ(log.Of("connect").size(), 1U);
  EXPECT_EQ(Decode<sockaddr_in>(log.Of("connect")[0].data).sin_port, listener.Address().sin_port);
  EXPECT_EQ(log.Of("freeaddrinfo").size(), 1U);
}

TEST(HttpConnect, FailedSocketOnTheLastAddressGivesMinusOne) {
  const std::size_t before = CountOpenFds();
  const ResolverAnswer answer({Loopback(1)});
  const CallLog log;
  const Fault fault = FailCall("socket", EMFILE);
  HttpClient client;

  EXPECT_EQ(ConnectTo(client), -1);

  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(log.Names(), (Names{"getaddrinfo", "socket", "freeaddrinfo"}));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(HttpConnect, FailedConnectGoesOnToTheNextAddressWithANewSocket) {
  const ClosedPort closed;
  const Listener listener;
  const ResolverAnswer answer({closed.Address(), listener.Address()});
  const std::size_t before = CountOpenFds();
  const CallLog log;
  HttpClient client;

  const UniqueFd fd(ConnectTo(client));

  EXPECT_EQ(log.Of("socket").size(), 2U);
  EXPECT_EQ(log.Of("close").size(), 1U);
  EXPECT_EQ(log.Of("freeaddrinfo").size(), 1U);
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  ASSERT_EQ(::getpeername(fd.Get(), reinterpret_cast<sockaddr*>(&peer), &size), 0);
  EXPECT_EQ(peer.sin_port, listener.Address().sin_port);
  EXPECT_EQ(CountOpenFds(), before + 1);
}

TEST(HttpConnect, StopsAtTheFirstAddressThatAccepts) {
  const Listener first;
  const Listener second;
  const ResolverAnswer answer({first.Address(), second.Address()});
  const CallLog log;
  HttpClient client;

  const UniqueFd fd(ConnectTo(client));

  ASSERT_EQ(log.Of("connect").size(), 1U);
  EXPECT_EQ(Decode<sockaddr_in>(log.Of("connect")[0].data).sin_port, first.Address().sin_port);
}

TEST(HttpConnect, FailedConnectOnTheLastAddressGivesMinusOne) {
  const ClosedPort closed;
  const ResolverAnswer answer({closed.Address()});
  const std::size_t before = CountOpenFds();
  const CallLog log;
  HttpClient client;

  EXPECT_EQ(ConnectTo(client), -1);

  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(log.Of("close").size(), 1U);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(HttpConnect, InterruptedConnectIsNotRetried) {
  const ResolverAnswer answer({Loopback(1)});
  const CallLog log;
  const Fault fault = FailCall("connect", EINTR);
  HttpClient client;

  EXPECT_EQ(ConnectTo(client), -1);

  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(log.Of("connect").size(), 1U);
}

TEST(HttpConnect, FailedCloseHidesNoReasonAndIsNotRetried) {
  const ClosedPort closed;
  const ResolverAnswer answer({closed.Address()});
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault fault = FailCall("close", EINTR);
  HttpClient client;

  EXPECT_EQ(ConnectTo(client), -1);

  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(log.Of("close").size(), 1U);
  EXPECT_EQ(CountOpenFds(), before);
}

// The steps that set a socket up, each by the call that fails, and the calls made up to there.
struct SetUpStep {
  std::string name;
  std::string call;
  unsigned nth;
  Names made;
};

class HttpConnectSetUp : public testing::TestWithParam<SetUpStep> {};

TEST_P(HttpConnectSetUp, FailureGoesOnToTheNextAddress) {
  const Listener listener;
  const ResolverAnswer answer({Loopback(1), listener.Address()});
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault fault = FailCall(GetParam().call, ENOBUFS, GetParam().nth);
  HttpClient client;

  const UniqueFd fd(ConnectTo(client));

  EXPECT_TRUE(test::IsOpen(fd.Get()));
  ASSERT_EQ(log.Of("connect").size(), 1U);
  EXPECT_EQ(Decode<sockaddr_in>(log.Of("connect")[0].data).sin_port, listener.Address().sin_port);
  EXPECT_EQ(log.Of("close").size(), 1U);
  EXPECT_EQ(log.Of("freeaddrinfo").size(), 1U);
  EXPECT_EQ(CountOpenFds(), before + 1);
}

TEST_P(HttpConnectSetUp, FailureOnTheLastAddressGivesTheNumberJustClosed) {
  const ClosedPort closed;
  const ResolverAnswer answer({closed.Address(), Loopback(1)});
  const std::size_t before = CountOpenFds();
  const unsigned callsOfTheFirst = 2;
  const CallLog log;
  const Fault fault = FailCall(GetParam().call, ENOBUFS, callsOfTheFirst + GetParam().nth);
  HttpClient client;

  const int number = ConnectTo(client);

  EXPECT_EQ(errno, ENOBUFS);
  ASSERT_EQ(log.Of("close").size(), 2U);
  EXPECT_GE(number, 0);
  EXPECT_EQ(log.Of("close")[1].args, Args{number});
  EXPECT_FALSE(test::IsOpen(number));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST_P(HttpConnectSetUp, FailureLeavesOutTheStepsAfterIt) {
  const ResolverAnswer answer({Loopback(1)});
  const CallLog log;
  const Fault fault = FailCall(GetParam().call, ENOBUFS, GetParam().nth);
  HttpClient client;

  (void)ConnectTo(client);

  Names expected = {"getaddrinfo", "socket"};
  expected.insert(expected.end(), GetParam().made.begin(), GetParam().made.end());
  expected.insert(expected.end(), {"close", "freeaddrinfo"});
  EXPECT_EQ(log.Names(), expected);
}

TEST_P(HttpConnectSetUp, FailureBeforeALastAddressWithoutSocketGivesMinusOne) {
  const ResolverAnswer answer({Loopback(1), Loopback(2)});
  const Fault fault = FailCall(GetParam().call, ENOBUFS, GetParam().nth);
  const Fault last = FailCall("socket", EMFILE, 2);
  HttpClient client;

  EXPECT_EQ(ConnectTo(client), -1);
  EXPECT_EQ(errno, EMFILE);
}

TEST_P(HttpConnectSetUp, FailureBeforeALastAddressThatRefusesGivesMinusOne) {
  const ClosedPort closed;
  const ResolverAnswer answer({Loopback(1), closed.Address()});
  const Fault fault = FailCall(GetParam().call, ENOBUFS, GetParam().nth);
  HttpClient client;

  EXPECT_EQ(ConnectTo(client), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_P(HttpConnectSetUp, FailureOnTheLastAddressMakesAStreamingGetSucceedWithoutABody) {
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault fault = FailCall(GetParam().call, ENOBUFS, GetParam().nth);
  HttpClient client;

  EXPECT_TRUE(client.Get("http://127.0.0.1:1/", [](const char*, unsigned int) {
    ADD_FAILURE() << "called";
    return true;
  }));

  EXPECT_EQ(log.Of("send").size(), 1U);
  EXPECT_EQ(log.Of("recv").size(), 1U);
  ASSERT_EQ(log.Of("close").size(), 2U);
  EXPECT_EQ(log.Of("close")[1].args, log.Of("close")[0].args);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST_P(HttpConnectSetUp, FailureOnTheLastAddressGivesStatusZero) {
  const CallLog log;
  const Fault fault = FailCall(GetParam().call, ENOBUFS, GetParam().nth);
  HttpClient client;

  const HttpResponse response = client.Post("http://127.0.0.1:1/", "a=1", "text/plain");

  EXPECT_EQ(response.status, 0);
  EXPECT_EQ(response.body, "");
  ASSERT_EQ(log.Of("close").size(), 2U);
  EXPECT_EQ(log.Of("close")[1].args, log.Of("close")[0].args);
}

INSTANTIATE_TEST_SUITE_P(Step, HttpConnectSetUp,
                         testing::Values(SetUpStep{"SendTimeout", "setsockopt", 1, {"setsockopt"}},
                                         SetUpStep{"RecvTimeout", "setsockopt", 2, {"setsockopt", "setsockopt"}},
                                         SetUpStep{"ReadFlags", "fcntl", 1, {"setsockopt", "setsockopt", "fcntl"}},
                                         SetUpStep{
                                             "SetFlags", "fcntl", 2, {"setsockopt", "setsockopt", "fcntl", "fcntl"}}),
                         [](const testing::TestParamInfo<SetUpStep>& tested) { return tested.param.name; });

TEST(HttpSendRequest, MakesOneSendOfTheWholeRequestWithoutSigpipe) {
  const auto [fd, peer] = test::SocketPair();
  const CallLog log;
  HttpClient client;

  client.SendRequest(fd.Get(), "POST", UrlOf("h", 80), "a=1", "text/plain");

  const std::string expected =
      "POST / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nContent-Type: text/plain\r\nContent-Length: 3\r\n\r\na=1";
  ASSERT_EQ(log.Names(), Names{"send"});
  EXPECT_EQ(log.Of("send")[0].data, expected);
  EXPECT_EQ(log.Of("send")[0].args, (Args{fd.Get(), static_cast<long long>(expected.size()), MSG_NOSIGNAL}));
}

TEST(HttpSendRequest, NeitherFailureNorShortSendIsRepeated) {
  const auto [fd, peer] = test::SocketPair();
  HttpClient client;
  const CallLog log;
  {
    const Fault interrupted = FailCall("send", EINTR);
    client.SendRequest(fd.Get(), "GET", UrlOf("h", 80), "", "");
  }
  EXPECT_EQ(log.Of("send").size(), 1U);
  {
    const Fault shortSend = ReturnFrom("send", 1);
    client.SendRequest(fd.Get(), "GET", UrlOf("h", 80), "", "");
  }

  EXPECT_EQ(log.Of("send").size(), 2U);
}

TEST(HttpSendRequest, SurvivesAPeerThatIsGone) {
  auto [fd, peer] = test::SocketPair();
  peer.Reset();
  HttpClient client;

  client.SendRequest(fd.Get(), "GET", UrlOf("h", 80), "", "");

  EXPECT_EQ(errno, EPIPE);
}

TEST(HttpReadResponse, ReadsBlocksOf4096UntilTheEnd) {
  auto [fd, peer] = test::SocketPair();
  const std::string answer = "HTTP/1.1 200 OK\r\n\r\n" + std::string(5000, 'x');
  ASSERT_EQ(::send(peer.Get(), answer.data(), answer.size(), 0), static_cast<ssize_t>(answer.size()));
  peer.Reset();
  HttpClient client;
  HttpResponse response;
  const CallLog log;

  EXPECT_TRUE(client.ReadResponse(fd.Get(), response, nullptr));

  EXPECT_EQ(log.Names(), (Names{"recv", "recv", "recv"}));
  EXPECT_EQ(log.Of("recv")[0].args, (Args{fd.Get(), 4096, 0}));
  EXPECT_EQ(response.body, std::string(5000, 'x'));
}

class HttpReadError : public testing::TestWithParam<int> {};

TEST_P(HttpReadError, BeforeTheHeadLeavesStatusZero) {
  const auto [fd, peer] = test::SocketPair();
  const std::string part = "HTTP/1.1 200 OK\r\n";
  ASSERT_EQ(::send(peer.Get(), part.data(), part.size(), 0), static_cast<ssize_t>(part.size()));
  HttpClient client;
  HttpResponse response;
  const CallLog log;
  const Fault fault = FailCall("recv", GetParam(), 2);

  EXPECT_TRUE(client.ReadResponse(fd.Get(), response, nullptr));

  EXPECT_EQ(response.status, 0);
  EXPECT_EQ(log.Names(), (Names{"recv", "recv"}));
}

TEST_P(HttpReadError, InTheBodyKeepsWhatCame) {
  const auto [fd, peer] = test::SocketPair();
  const std::string part = "HTTP/1.1 200 OK\r\n\r\nhalf";
  ASSERT_EQ(::send(peer.Get(), part.data(), part.size(), 0), static_cast<ssize_t>(part.size()));
  HttpClient client;
  HttpResponse response;
  const CallLog log;
  const Fault fault = FailCall("recv", GetParam(), 2);

  EXPECT_TRUE(client.ReadResponse(fd.Get(), response, nullptr));

  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "half");
  EXPECT_EQ(log.Names(), (Names{"recv", "recv"}));
}

INSTANTIATE_TEST_SUITE_P(Errno, HttpReadError, testing::Values(EINTR, EAGAIN, ECONNRESET));

TEST(HttpReadResponse, RefusalLeavesTheRestUnread) {
  const auto [fd, peer] = test::SocketPair();
  const std::string answer = "HTTP/1.1 200 OK\r\n\r\n" + std::string(9000, 'x');
  ASSERT_EQ(::send(peer.Get(), answer.data(), answer.size(), 0), static_cast<ssize_t>(answer.size()));
  HttpClient client;
  HttpResponse response;
  const CallLog log;

  EXPECT_FALSE(client.ReadResponse(fd.Get(), response, [](const char*, unsigned int) { return false; }));

  EXPECT_EQ(log.Names(), Names{"recv"});
}

TEST(HttpGet, UnparsedUrlTouchesNoNetwork) {
  HttpClient client;
  const CallLog log;

  EXPECT_EQ(client.Get("ftp://h/").status, 0);
  EXPECT_FALSE(client.Get("https://h/", [](const char*, unsigned int) { return true; }));
  EXPECT_EQ(client.Post("http:///x", "a", "b").status, 0);
  EXPECT_FALSE(client.Post(
      "", "a", [](const char*, unsigned int) { return true; }, "b"));

  EXPECT_EQ(log.Names(), Names{});
}

TEST(HttpGet, FailedConnectionSendsNothingAndClosesNothingMore) {
  const ClosedPort closed;
  const ResolverAnswer answer({closed.Address()});
  HttpClient client;
  const CallLog log;

  EXPECT_EQ(client.Get("http://h/").status, 0);
  EXPECT_FALSE(client.Get("http://h/", [](const char*, unsigned int) { return true; }));

  EXPECT_EQ(log.Of("send").size(), 0U);
  EXPECT_EQ(log.Of("recv").size(), 0U);
  EXPECT_EQ(log.Of("close").size(), 2U) << "one for each connection attempt";
}

TEST(HttpGet, FailedSendShowsAsAMissingAnswer) {
  const Listener listener;
  const std::size_t before = CountOpenFds();
  HttpClient client;
  const Fault firstSend = FailCall("send", EAGAIN, 1);
  const Fault firstRead = FailCall("recv", EAGAIN, 1);
  const Fault secondSend = FailCall("send", ECONNRESET, 2);
  const Fault secondRead = FailCall("recv", ECONNRESET, 2);

  EXPECT_EQ(client.Get(listener.Url("/")).status, 0);
  EXPECT_TRUE(client.Get(listener.Url("/"), [](const char*, unsigned int) {
    ADD_FAILURE() << "called";
    return true;
  }));

  EXPECT_EQ(CountOpenFds(), before);
}

TEST(HttpGet, ClosesItsConnectionLast) {
  const Listener listener;
  std::thread server(Serve, listener.Fd(), std::vector<std::string>{"HTTP/1.1 200 OK\r\n\r\nbody"});
  HttpClient client;
  const CallLog log;

  const HttpResponse response = client.Get(listener.Url("/"));

  server.join();
  EXPECT_EQ(response.body, "body");
  EXPECT_EQ(log.Names().back(), "close");
  EXPECT_EQ(log.Of("close").size(), 1U);
}

TEST(HttpGet, RedirectKeepsTheFirstConnectionUntilTheSecondIsClosed) {
  const Listener listener;
  const std::vector<std::string> answers = {"HTTP/1.1 302 Found\r\n\r\nLocation: /b\r\n\r\n",
                                            "HTTP/1.1 200 OK\r\n\r\nend"};
  std::thread server(Serve, listener.Fd(), answers);
  const std::size_t before = CountOpenFds();
  HttpClient client;
  const CallLog log;

  const HttpResponse response = client.Get(listener.Url("/a"));

  server.join();
  EXPECT_EQ(response.body, "end");
  ASSERT_EQ(log.Of("connect").size(), 2U);
  ASSERT_EQ(log.Of("close").size(), 2U);
  EXPECT_EQ(log.Of("close")[0].args[0], log.Of("connect")[1].args[0]);
  EXPECT_EQ(log.Of("close")[1].args[0], log.Of("connect")[0].args[0]);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(HttpGet, FailedConnectionOfARedirectFailsTheWhole) {
  const Listener listener;
  const std::string redirect = "HTTP/1.1 302 Found\r\n\r\nLocation: /b\r\n\r\n";
  std::thread server(Serve, listener.Fd(), std::vector<std::string>{redirect, redirect});
  const std::size_t before = CountOpenFds();
  HttpClient client;
  {
    const Fault fault = FailCall("socket", EMFILE, 2);
    EXPECT_EQ(client.Get(listener.Url("/a")).status, 0);
  }
  {
    const Fault fault = FailCall("getaddrinfo", EIO, 2);
    EXPECT_FALSE(client.Get(listener.Url("/a"), [](const char*, unsigned int) { return true; }));
  }

  server.join();
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(HttpGet, RefusalByTheCallbackClosesTheConnection) {
  const Listener listener;
  std::thread server(Serve, listener.Fd(), std::vector<std::string>{"HTTP/1.1 200 OK\r\n\r\nbody"});
  const std::size_t before = CountOpenFds();
  HttpClient client;

  EXPECT_FALSE(client.Get(listener.Url("/"), [](const char*, unsigned int) { return false; }));

  server.join();
  EXPECT_EQ(CountOpenFds(), before);
}

}  // namespace
}  // namespace kiv::net
