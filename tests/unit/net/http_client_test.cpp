#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <netinet/tcp.h>
#include <nss.h>
#include <resolv.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/support.h"
#include "tests/unit/net/scripted_server.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::Answer;
using test::AnswerAndHold;
using test::AnswerAndReset;
using test::CountOpenFds;
using test::ScriptedServer;
using test::SocketPair;
using Calls = std::vector<std::string>;
using Headers = std::vector<std::pair<std::string, std::string>>;
using ParsedUrl = HttpClient::ParsedUrl;

const std::string kNul(1, '\0');
const std::string kOk = "HTTP/1.1 200 OK\r\n\r\n";

HttpClient::BodyCallback CollectInto(Calls& calls) {
  return [&calls](const char* data, unsigned int length) {
    calls.emplace_back(data, length);
    return true;
  };
}

bool Refuse(const char* /*data*/, unsigned int /*length*/) { return false; }

void ExpectEmpty(const HttpResponse& response) {
  EXPECT_EQ(0, response.status);
  EXPECT_EQ("", response.reason);
  EXPECT_EQ("", response.body);
  EXPECT_TRUE(response.headers.empty());
}

template <typename Value>
Value GetOption(int fd, int level, int name) {
  Value value{};
  socklen_t size = sizeof value;
  EXPECT_EQ(0, ::getsockopt(fd, level, name, &value, &size));
  return value;
}

unsigned short PortOf(const sockaddr_in& address) { return ntohs(address.sin_port); }

// A socket bound to a free port of the loopback interface; it listens when `backlog` is not negative.
class BoundSocket {
 public:
  BoundSocket(int type, int backlog) : mFd(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, ::bind(mFd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    socklen_t size = sizeof address;
    EXPECT_EQ(0, ::getsockname(mFd.Get(), reinterpret_cast<sockaddr*>(&address), &size));
    mPort = PortOf(address);
    if (backlog >= 0) {
      EXPECT_EQ(0, ::listen(mFd.Get(), backlog));
    }
  }

  int Fd() const { return mFd.Get(); }
  unsigned short Port() const { return mPort; }
  std::string Url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(mPort) + path; }

 private:
  UniqueFd mFd;
  unsigned short mPort = 0;
};

// The only name server of the calling thread while it exists: it knows no name and notes what it is asked for, so that
// no question leaves the machine.
class LoopbackResolver {
 public:
  LoopbackResolver() : mSocket(SOCK_DGRAM, -1), mThread([this] { Serve(); }) {
    (void)::__nss_configure_lookup("hosts", "files dns");
    (void)::res_init();
    _res.options &= ~static_cast<unsigned long>(RES_DEFNAMES | RES_DNSRCH);
    _res.nscount = 1;
    _res.nsaddr_list[0] = sockaddr_in{};
    _res.nsaddr_list[0].sin_family = AF_INET;
    _res.nsaddr_list[0].sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    _res.nsaddr_list[0].sin_port = htons(mSocket.Port());
  }
  LoopbackResolver(const LoopbackResolver&) = delete;
  LoopbackResolver& operator=(const LoopbackResolver&) = delete;
  ~LoopbackResolver() { (void)Finish(); }

  // Returns "name/type" of every question so far; type 1 is an IPv4 address.
  const std::vector<std::string>& Finish() {
    if (mThread.joinable()) {
      const UniqueFd sender(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
      const sockaddr_in target = _res.nsaddr_list[0];
      (void)::sendto(sender.Get(), "", 0, 0, reinterpret_cast<const sockaddr*>(&target), sizeof target);
      mThread.join();
      (void)::res_init();
    }
    return mQuestions;
  }

 private:
  // An empty datagram ends it.
  void Serve() {
    char packet[512];
    sockaddr_in peer{};
    socklen_t peerSize = sizeof peer;
    auto* const from = reinterpret_cast<sockaddr*>(&peer);
    for (;;) {
      const ssize_t size = ::recvfrom(mSocket.Fd(), packet, sizeof packet, 0, from, &peerSize);
      if (size < 12) {
        return;
      }
      mQuestions.push_back(Question(packet + 12));
      packet[2] = static_cast<char>(0x81);  // An answer,
      packet[3] = static_cast<char>(0x83);  // which says that there is no such name.
      (void)::sendto(mSocket.Fd(), packet, static_cast<std::size_t>(size), 0, from, peerSize);
    }
  }

  static std::string Question(const char* bytes) {
    std::string name;
    while (*bytes != 0) {
      name.append(name.empty() ? "" : ".").append(bytes + 1, static_cast<std::size_t>(*bytes));
      bytes += 1 + *bytes;
    }
    return name + "/" + std::to_string(bytes[2]);
  }

  BoundSocket mSocket;
  std::vector<std::string> mQuestions;
  std::thread mThread;
};

// ------------------------------------------------------------------------------------------------------- the types

TEST(HttpClientTypes, ParsedUrlIsHostPathPort) {
  const ParsedUrl url = {"host", "/path", 81};
  EXPECT_EQ("host", url.host);
  EXPECT_EQ("/path", url.path);
  EXPECT_EQ(81, url.port);
  static_assert(std::is_same_v<unsigned short, decltype(url.port)>);
}

TEST(HttpClientTypes, ResponseIsStatusReasonBodyHeadersAndStartsEmpty) {
  ExpectEmpty(HttpResponse());
  const HttpResponse response = {200, "OK", "text", {{"A", "1"}}};
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("OK", response.reason);
  EXPECT_EQ("text", response.body);
  EXPECT_EQ((Headers{{"A", "1"}}), response.headers);
}

// -------------------------------------------------------------------------------------------------------- ParseUrl

struct UrlCase {
  std::string url;
  bool ok;
  std::string host;
  std::string path;
  int port;  // 4711 was there before.
};

void ExpectParsed(const std::vector<UrlCase>& cases) {
  for (const UrlCase& c : cases) {
    ParsedUrl out = {"old host", "old path", 4711};
    EXPECT_EQ(c.ok, HttpClient().ParseUrl(c.url, out)) << c.url;
    EXPECT_EQ(c.host, out.host) << c.url;
    EXPECT_EQ(c.path, out.path) << c.url;
    EXPECT_EQ(c.port, out.port) << c.url;
  }
}

TEST(ParseUrl, SplitsHostAndPathAtTheFirstSlash) {
  ExpectParsed({
      {"http://h", true, "h", "/", 4711},
      {"http://h/", true, "h", "/", 4711},
      {"http://h//x", true, "h", "//x", 4711},
      {"http://192.168.1.1/status", true, "192.168.1.1", "/status", 4711},
      {"http://h:8080/a?b=c#d", true, "h", "/a?b=c#d", 8080},
      {"http://h/http://i:1/", true, "h", "/http://i:1/", 4711},
      {"http://h?q", true, "h?q", "/", 4711},
      {"http://h?q=/x", true, "h?q=", "/x", 4711},
      {"http://h#f", true, "h#f", "/", 4711},
  });
}

TEST(ParseUrl, OtherSchemesFailAndTouchNothing) {
  for (const std::string url : {"", "h", "http:/", "http:/h/", "https://h/", "HTTP://h/", "Http://h/", "ftp://h/",
                                " http://h/", "http:h//", "http:\\\\h", "httpx//h", "//h/"}) {
    ExpectParsed({{url, false, "old host", "old path", 4711}});
  }
}

TEST(ParseUrl, MayReadFromTheHostThatItFills) {
  HttpClient::ParsedUrl url;
  url.host = "http://h:8080/a";
  EXPECT_TRUE(HttpClient().ParseUrl(url.host, url));
  EXPECT_EQ("h", url.host);
  EXPECT_EQ("/a", url.path);
  EXPECT_EQ(8080, url.port);
}

TEST(ParseUrl, EmptyHostFailsAfterTheParts) {
  ExpectParsed({
      {"http://", false, "", "/", 4711},
      {"http:///", false, "", "/", 4711},
      {"http:///x", false, "", "/x", 4711},
      {"http://:8080/", false, "", "/", 8080},
      {"http://:8080", false, "", "/", 8080},
      {"http://:0/", true, ":0", "/", 4711},
      {"http://:/", true, ":", "/", 4711},
  });
}

TEST(ParseUrl, ValidPortIsCutOffAndStored) {
  ExpectParsed({
      {"http://h:1/", true, "h", "/", 1},
      {"http://h:80", true, "h", "/", 80},
      {"http://h:65535/", true, "h", "/", 65535},
      {"http://h:0080/", true, "h", "/", 80},
      {"http://h: 80/", true, "h", "/", 80},
      {"http://h:\t\n80/", true, "h", "/", 80},
      {"http://h:+80/", true, "h", "/", 80},
      {"http://a:b:81/", true, "a:b", "/", 81},
  });
}

TEST(ParseUrl, InvalidPortStaysInTheHostAndChangesNothing) {
  for (const std::string host : {"h:", "h:0", "h:65536", "h:70000", "h:99999", "h:8a", "h:80 ", "h:x", "h: ", "h:+",
                                 "h:-", "h:-1", "h:0x50", "h:8.0", "h:99999999999999999999999", "h:80:", "h:80:x"}) {
    ExpectParsed({{"http://" + host + "/p", true, host, "/p", 4711}, {"http://" + host, true, host, "/", 4711}});
  }
}

TEST(ParseUrl, BracketedLiteralKeepsItsColons) {
  ExpectParsed({
      {"http://[::1]/", true, "[::1]", "/", 4711},
      {"http://[::1]", true, "[::1]", "/", 4711},
      {"http://[fe80::1:80]/x", true, "[fe80::1:80]", "/x", 4711},
      {"http://h:80]/", true, "h:80]", "/", 4711},
      {"http://[::1]:8080/x", true, "[::1]", "/x", 8080},
      {"http://[::1]:0/x", true, "[::1]:0", "/x", 4711},
  });
}

TEST(ParseUrl, NothingIsDecodedFoldedOrTakenOff) {
  ExpectParsed({
      {"http://user@host/", true, "user@host", "/", 4711},
      {"http://user:pw@host/", true, "user:pw@host", "/", 4711},
      {"http://user:pw@host:81/", true, "user:pw@host", "/", 81},
      {"http://HoSt/%41%2f/../A b", true, "HoSt", "/%41%2f/../A b", 4711},
      {"http://%41/", true, "%41", "/", 4711},
  });
}

TEST(ParseUrl, NulBytesAreBytesLikeOthers) {
  ExpectParsed({
      {"http://a" + kNul + "b/c" + kNul + "d", true, "a" + kNul + "b", "/c" + kNul + "d", 4711},
      {"http://h:80" + kNul + "/", true, "h:80" + kNul, "/", 4711},
      {"http://h:80" + kNul + "9/", true, "h:80" + kNul + "9", "/", 4711},
      {"http://h" + kNul + ":80/", true, "h" + kNul, "/", 80},
  });
}

// --------------------------------------------------------------------------------------------------------- Connect

std::pair<timeval, timeval> SocketTimeouts(HttpClient& client) {
  const BoundSocket listener(SOCK_STREAM, 8);
  const UniqueFd fd(client.Connect({"127.0.0.1", "/", listener.Port()}));
  return {GetOption<timeval>(fd.Get(), SOL_SOCKET, SO_SNDTIMEO), GetOption<timeval>(fd.Get(), SOL_SOCKET, SO_RCVTIMEO)};
}

void ExpectTimeouts(HttpClient& client, long seconds) {
  const auto [send, receive] = SocketTimeouts(client);
  EXPECT_EQ(seconds, send.tv_sec);
  EXPECT_EQ(0, send.tv_usec);
  EXPECT_EQ(seconds, receive.tv_sec);
  EXPECT_EQ(0, receive.tv_usec);
}

TEST(SetTimeout, IsFiveSecondsAtFirst) {
  HttpClient client;
  ExpectTimeouts(client, 5);
}

TEST(SetTimeout, IsAppliedInWholeSecondsRoundedUp) {
  const std::vector<std::pair<int, long>> cases = {{1, 1},    {999, 1},  {1000, 1}, {1001, 2},        {2000, 2},
                                                   {2001, 3}, {5000, 5}, {5001, 6}, {86399999, 86400}};
  for (const auto& [ms, seconds] : cases) {
    SCOPED_TRACE(ms);
    HttpClient client;
    EXPECT_TRUE(client.SetTimeout(ms));
    ExpectTimeouts(client, seconds);
  }
}

TEST(SetTimeout, LessThanOneRestoresTheDefault) {
  for (const int ms : {0, -1, -5, -2147483647 - 1}) {
    SCOPED_TRACE(ms);
    HttpClient client;
    EXPECT_TRUE(client.SetTimeout(1000));
    EXPECT_FALSE(client.SetTimeout(ms));
    ExpectTimeouts(client, 5);
  }
}

TEST(HttpConnect, GivesABlockingTcpSocketConnectedToThePort) {
  const BoundSocket listener(SOCK_STREAM, 8);
  const UniqueFd fd(HttpClient().Connect({"127.0.0.1", "/", listener.Port()}));
  ASSERT_TRUE(fd.IsValid());
  EXPECT_EQ(0, ::fcntl(fd.Get(), F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(AF_INET, GetOption<int>(fd.Get(), SOL_SOCKET, SO_DOMAIN));
  EXPECT_EQ(SOCK_STREAM, GetOption<int>(fd.Get(), SOL_SOCKET, SO_TYPE));
  EXPECT_EQ(IPPROTO_TCP, GetOption<int>(fd.Get(), SOL_SOCKET, SO_PROTOCOL));
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  ASSERT_EQ(0, ::getpeername(fd.Get(), reinterpret_cast<sockaddr*>(&peer), &size));
  EXPECT_EQ(listener.Port(), PortOf(peer));
  EXPECT_EQ(htonl(INADDR_LOOPBACK), peer.sin_addr.s_addr);
}

TEST(HttpConnect, ResolvesNames) {
  const BoundSocket listener(SOCK_STREAM, 8);
  const UniqueFd fd(HttpClient().Connect({"localhost", "/", listener.Port()}));
  EXPECT_TRUE(fd.IsValid());
}

TEST(HttpConnect, RefusalGivesMinusOneAndItsErrnoAndLeavesNothingOpen) {
  const BoundSocket deaf(SOCK_STREAM, -1);
  const std::size_t before = CountOpenFds();
  EXPECT_EQ(-1, HttpClient().Connect({"127.0.0.1", "/", deaf.Port()}));
  EXPECT_EQ(ECONNREFUSED, errno);
  EXPECT_EQ(before, CountOpenFds());
}

TEST(HttpConnect, OnlyIpv4IsAskedFor) {
  LoopbackResolver resolver;
  EXPECT_EQ(-1, HttpClient().Connect({"name.invalid", "/", 80}));
  EXPECT_EQ((std::vector<std::string>{"name.invalid/1"}), resolver.Finish());
}

TEST(HttpConnect, HostThatKeptItsPortOrBracketsDoesNotResolve) {
  const LoopbackResolver resolver;
  const BoundSocket listener(SOCK_STREAM, 8);
  for (const std::string url :
       {"http://127.0.0.1:99999/", "http://127.0.0.1:/", "http://[127.0.0.1]/", "http://[::1]/"}) {
    ParsedUrl parsed = {"", "", listener.Port()};
    ASSERT_TRUE(HttpClient().ParseUrl(url, parsed));
    EXPECT_EQ(-1, HttpClient().Connect(parsed)) << url;
  }
  EXPECT_TRUE(test::IsQuiet(listener.Fd()));
}

// Its queue of connections is full: the kernel drops every further attempt.
class FullListener {
 public:
  FullListener() : mListener(SOCK_STREAM, 0), mFirst(HttpClient().Connect({"127.0.0.1", "/", mListener.Port()})) {
    pollfd queued{mListener.Fd(), POLLIN, 0};
    EXPECT_EQ(1, ::poll(&queued, 1, 10000));
  }

  unsigned short Port() const { return mListener.Port(); }
  std::string Url() const { return mListener.Url("/"); }

 private:
  BoundSocket mListener;
  UniqueFd mFirst;
};

TEST(HttpConnect, SilentServerEndsTheConnectAfterTheTimeout) {
  const FullListener listener;
  HttpClient client;
  EXPECT_TRUE(client.SetTimeout(1));
  const std::size_t before = CountOpenFds();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, client.Connect({"127.0.0.1", "/", listener.Port()}));
  EXPECT_EQ(EINPROGRESS, errno);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(before, CountOpenFds());
}

// ----------------------------------------------------------------------------------------------------- SendRequest

// Returns the request as one receive gives it; a pair that keeps message borders shows that one send made all of it.
std::string SentInOnePiece(HttpClient& client, const std::string& method, const ParsedUrl& url, const std::string& body,
                           const std::string& contentType) {
  int fds[2] = {-1, -1};
  EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
  const UniqueFd writer(fds[0]);
  const UniqueFd reader(fds[1]);
  client.SendRequest(writer.Get(), method, url, body, contentType);
  char bytes[65536];
  const ssize_t size = ::recv(reader.Get(), bytes, sizeof bytes, MSG_DONTWAIT);
  EXPECT_TRUE(test::IsQuiet(reader.Get()));
  return size < 0 ? "" : std::string(bytes, static_cast<std::size_t>(size));
}

TEST(SendRequest, HeadAndBodyLeaveInOneSend) {
  HttpClient client;
  client.AddHeader("A", "1");
  EXPECT_EQ(
      "POST /x HTTP/1.1\r\nHost: h\r\nConnection: close\r\nContent-Type: t\r\nContent-Length: 5\r\nA: 1\r\n\r\n"
      "12345",
      SentInOnePiece(client, "POST", {"h", "/x", 8080}, "12345", "t"));
}

TEST(SendRequest, GetWithOneHeaderIsExactlyTheseBytes) {
  HttpClient client;
  client.AddHeader("Accept", "*/*");
  EXPECT_EQ("GET /x HTTP/1.1\r\nHost: h\r\nConnection: close\r\nAccept: */*\r\n\r\n",
            SentInOnePiece(client, "GET", {"h", "/x", 8080}, "", "ignored/type"));
}

TEST(SendRequest, MethodIsWrittenUnchanged) {
  HttpClient client;
  for (const std::string method : {"GET", "POST", "delete", "", "A B"}) {
    EXPECT_EQ(method + " / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n",
              SentInOnePiece(client, method, {"h", "/", 80}, "", ""));
  }
}

TEST(AddHeader, KeepsOrderRepeatsAndOddBytes) {
  HttpClient client;
  client.AddHeader("B", "2");
  client.AddHeader("A", "1");
  client.AddHeader("B", "2");
  client.AddHeader("Host", "other");
  client.AddHeader("", "");
  client.AddHeader("C\r\nD", "\n" + kNul);
  EXPECT_EQ(
      "GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nB: 2\r\nA: 1\r\nB: 2\r\nHost: other\r\n: \r\nC\r\nD: \n" +
          kNul + "\r\n\r\n",
      SentInOnePiece(client, "GET", {"h", "/", 80}, "", ""));
}

TEST(AddHeader, StoresACopy) {
  HttpClient client;
  std::string name = "Name";
  std::string value = "value";
  client.AddHeader(name, value);
  name[0] = value[0] = 'X';
  EXPECT_EQ("GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nName: value\r\n\r\n",
            SentInOnePiece(client, "GET", {"h", "/", 80}, "", ""));
}

TEST(ClearHeaders, LeavesOnlyTheClientsOwnLines) {
  HttpClient client;
  client.AddHeader("A", "1");
  client.AddHeader("B", "2");
  client.ClearHeaders();
  EXPECT_EQ("GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n",
            SentInOnePiece(client, "GET", {"h", "/", 80}, "", ""));
  EXPECT_EQ("POST / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nContent-Type: \r\nContent-Length: 1\r\n\r\nb",
            SentInOnePiece(client, "POST", {"h", "/", 80}, "b", ""));
  client.AddHeader("C", "3");
  EXPECT_EQ("GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nC: 3\r\n\r\n",
            SentInOnePiece(client, "GET", {"h", "/", 80}, "", ""));
}

TEST(SendRequest, BodyLargerThanTheSocketBufferGoesOutWhole) {
  auto [writer, reader] = SocketPair();
  std::string body(1024 * 1024, 'b');
  body.front() = '<';
  body.back() = '>';
  auto received = std::async(std::launch::async, [fd = reader.Get()] { return test::ReceiveAll(fd); });
  HttpClient().SendRequest(writer.Get(), "POST", {"h", "/", 80}, body, "t");
  writer.Reset();
  EXPECT_TRUE(received.get() ==
              "POST / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nContent-Type: t\r\nContent-Length: 1048576\r\n\r\n" +
                  body);
}

TEST(SendRequest, ClosedPeerRaisesNoSigpipe) {
  sigset_t sigpipe;
  sigset_t before;
  sigset_t pending;
  (void)::sigemptyset(&sigpipe);
  (void)::sigaddset(&sigpipe, SIGPIPE);
  ASSERT_EQ(0, ::pthread_sigmask(SIG_BLOCK, &sigpipe, &before));
  auto [writer, reader] = SocketPair();
  reader.Reset();
  HttpClient().SendRequest(writer.Get(), "GET", {"h", "/", 80}, "", "");
  ASSERT_EQ(0, ::sigpending(&pending));
  EXPECT_EQ(0, ::sigismember(&pending, SIGPIPE));
  const timespec atOnce{};
  (void)::sigtimedwait(&sigpipe, nullptr, &atOnce);
  (void)::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(SendRequest, BadDescriptorIsNotNoticed) {
  HttpClient().SendRequest(-1, "GET", {"h", "/", 80}, "", "");
  EXPECT_EQ(EBADF, errno);
}

TEST(SendRequest, GivesUpWhenANonBlockingSocketIsFull) {
  auto [writer, reader] = SocketPair();
  ASSERT_TRUE(SetNonBlocking(writer.Get(), true));
  const std::string body(4 * 1024 * 1024, 'b');
  HttpClient().SendRequest(writer.Get(), "POST", {"h", "/", 80}, body, "t");
  writer.Reset();
  const std::string received = test::ReceiveAll(reader.Get());
  EXPECT_LT(received.size(), body.size());
  EXPECT_EQ(0U, received.find("POST / HTTP/1.1\r\nHost: h\r\n"));
}

// ---------------------------------------------------------------------------------------------------- ReadResponse

// The answer lies in the socket whole, so that every receive but the last takes 4096 bytes.
TEST(ReadResponse, ReadsIn4096ByteChunks) {
  auto [server, client] = SocketPair();
  test::SendAll(server.Get(), kOk + std::string(10000, 'b'));
  server.Reset();
  HttpResponse response;
  Calls calls;
  EXPECT_TRUE(HttpClient().ReadResponse(client.Get(), response, CollectInto(calls)));
  ASSERT_EQ(3U, calls.size());
  EXPECT_EQ(4096 - kOk.size(), calls[0].size());
  EXPECT_EQ(4096U, calls[1].size());
  EXPECT_EQ(10000 + kOk.size() - 8192, calls[2].size());
  EXPECT_EQ("", response.body);
}

TEST(ReadResponse, HeadHasNoSizeLimit) {
  auto [server, client] = SocketPair();
  test::SendAll(server.Get(), "HTTP/1.1 200 OK\r\nX: " + std::string(100000, 'x') + "\r\n\r\nbody");
  server.Reset();
  HttpResponse response;
  EXPECT_TRUE(HttpClient().ReadResponse(client.Get(), response, nullptr));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("body", response.body);
}

TEST(ReadResponse, LengthAndChunkedCodingAreNotInterpreted) {
  auto [server, client] = SocketPair();
  const std::string body = "5\r\nhello\r\n0\r\n\r\n";
  test::SendAll(server.Get(), "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n" + body);
  server.Reset();
  HttpResponse response;
  EXPECT_TRUE(HttpClient().ReadResponse(client.Get(), response, nullptr));
  EXPECT_EQ(body, response.body);
}

TEST(ReadResponse, EndBeforeTheHeadIsCompleteIsTrueWithoutStatus) {
  for (const std::string bytes :
       {"", "HTTP/1.1 200 OK\r\n", "HTTP/1.1 200 OK\r\nA: b\r\n\r", "HTTP/1.1 200 OK\n\nbody"}) {
    auto [server, client] = SocketPair();
    test::SendAll(server.Get(), bytes);
    server.Reset();
    HttpResponse response;
    Calls calls;
    EXPECT_TRUE(HttpClient().ReadResponse(client.Get(), response, CollectInto(calls)));
    ExpectEmpty(response);
    EXPECT_TRUE(calls.empty());
  }
}

TEST(ReadResponse, ErrorEndsTheReadWithTrue) {
  HttpResponse response;
  EXPECT_TRUE(HttpClient().ReadResponse(-1, response, nullptr));
  ExpectEmpty(response);
}

TEST(ReadResponse, RefusalOfTheFirstCallLeavesTheRestUnread) {
  auto [server, client] = SocketPair();
  test::SendAll(server.Get(), kOk + std::string(5000, 'b'));
  server.Reset();
  HttpResponse response;
  EXPECT_FALSE(HttpClient().ReadResponse(client.Get(), response, Refuse));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ(kOk.size() + 5000 - 4096, test::ReceiveAll(client.Get()).size());
}

TEST(ReadResponse, RefusalOfALaterCallLeavesTheRestUnread) {
  auto [server, client] = SocketPair();
  test::SendAll(server.Get(), kOk + std::string(10000, 'b'));
  server.Reset();
  HttpResponse response;
  int calls = 0;
  EXPECT_FALSE(
      HttpClient().ReadResponse(client.Get(), response, [&calls](const char*, unsigned int) { return ++calls < 2; }));
  EXPECT_EQ(2, calls);
  EXPECT_EQ(kOk.size() + 10000 - 8192, test::ReceiveAll(client.Get()).size());
}

TEST(ReadResponse, LeavesTheDescriptorOpen) {
  auto [server, client] = SocketPair();
  server.Reset();
  HttpResponse response;
  EXPECT_TRUE(HttpClient().ReadResponse(client.Get(), response, nullptr));
  EXPECT_TRUE(test::IsOpen(client.Get()));
}

TEST(ReadResponse, SilenceEndsTheReadAfterTheReceiveTimeoutWithTrue) {
  auto [server, client] = SocketPair();
  ASSERT_TRUE(SetRecvTimeout(client.Get(), 1));
  test::SendAll(server.Get(), kOk + "part");
  HttpResponse response;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(HttpClient().ReadResponse(client.Get(), response, nullptr));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("part", response.body);
}

// ---------------------------------------------------------------------------------------------------- Get and Post

TEST(HttpGet, SendsTheRequestAndReturnsTheAnswer) {
  ScriptedServer server({Answer("HTTP/1.1 500 Internal Server Error\r\nX: y\r\n\r\nbroken")});
  const HttpResponse response = HttpClient().Get(server.Url("/a?b#c"));
  EXPECT_EQ(500, response.status);
  EXPECT_EQ("Internal Server Error", response.reason);
  EXPECT_EQ("broken", response.body);
  EXPECT_TRUE(response.headers.empty());
  ASSERT_EQ(1U, server.Finish().size());
  EXPECT_EQ("GET /a?b#c HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", server.Finish()[0].request);
}

TEST(HttpGet, EveryStatusIsASuccess) {
  for (const int status : {100, 204, 301, 303, 404, 503}) {
    const std::string answer = "HTTP/1.1 " + std::to_string(status) + " R\r\n\r\n";
    ScriptedServer server({Answer(answer), Answer(answer)});
    EXPECT_EQ(status, HttpClient().Get(server.Url("/")).status);
    Calls calls;
    EXPECT_TRUE(HttpClient().Get(server.Url("/"), CollectInto(calls)));
    EXPECT_EQ((Calls{""}), calls);
  }
}

TEST(HttpGet, StreamsTheBody) {
  ScriptedServer server({Answer(kOk + "streamed")});
  Calls calls;
  EXPECT_TRUE(HttpClient().Get(server.Url("/s"), CollectInto(calls)));
  EXPECT_EQ((Calls{"streamed"}), calls);
  EXPECT_EQ("GET /s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", server.Finish().at(0).request);
}

TEST(HttpGet, WhatTheCallbackThrowsPassesAndNoDescriptorStaysOpen) {
  ScriptedServer server({Answer(kOk + "refused")});
  const std::size_t before = test::CountOpenFds();
  const auto fail = [](const char*, unsigned int) -> bool { throw std::runtime_error("no"); };
  EXPECT_THROW(HttpClient().Get(server.Url("/"), fail), std::runtime_error);
  (void)server.Finish();
  EXPECT_LE(test::CountOpenFds(), before);
}

TEST(HttpGet, EmptyFunctionCollectsNothingAndSucceeds) {
  ScriptedServer server({Answer(kOk + "unseen")});
  EXPECT_TRUE(HttpClient().Get(server.Url("/"), HttpClient::BodyCallback()));
}

TEST(HttpPost, SendsBodyTypeAndLengthAndReturnsTheAnswer) {
  ScriptedServer server({Answer("HTTP/1.1 201 Created\r\n\r\nID: 7\n")});
  const HttpResponse response = HttpClient().Post(server.Url("/p"), "a=1", "application/x-www-form-urlencoded");
  EXPECT_EQ(201, response.status);
  EXPECT_EQ("Created", response.reason);
  EXPECT_EQ("ID: 7\n", response.body);
  EXPECT_EQ((Headers{{"ID", "7"}}), response.headers);
  EXPECT_EQ(
      "POST /p HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
      "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 3\r\n\r\na=1",
      server.Finish().at(0).request);
}

TEST(HttpPost, StreamingFormTakesTheCallbackBetweenBodyAndType) {
  ScriptedServer server({Answer(kOk + "streamed")});
  Calls calls;
  EXPECT_TRUE(HttpClient().Post(server.Url("/p"), "body", CollectInto(calls), "text/type"));
  EXPECT_EQ((Calls{"streamed"}), calls);
  EXPECT_EQ(
      "POST /p HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\nContent-Type: text/type\r\nContent-Length: 4\r\n\r\n"
      "body",
      server.Finish().at(0).request);
}

TEST(HttpPost, EmptyBodyGoesWithoutContentLines) {
  ScriptedServer server({Answer(kOk)});
  EXPECT_EQ(200, HttpClient().Post(server.Url("/p"), "", "text/type").status);
  EXPECT_EQ("POST /p HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", server.Finish().at(0).request);
}

struct Outcomes {
  HttpResponse get;
  HttpResponse post;
  bool streamedGet;
  bool streamedPost;
  std::size_t calls;
};

Outcomes AllForms(HttpClient& client, const std::string& url) {
  Calls calls;
  Outcomes outcomes = {client.Get(url), client.Post(url, "b", "t"), client.Get(url, CollectInto(calls)),
                       client.Post(url, "b", CollectInto(calls), "t"), 0};
  outcomes.calls = calls.size();
  return outcomes;
}

void ExpectFailure(HttpClient& client, const std::string& url) {
  SCOPED_TRACE(url);
  const std::size_t before = CountOpenFds();
  const Outcomes outcomes = AllForms(client, url);
  ExpectEmpty(outcomes.get);
  ExpectEmpty(outcomes.post);
  EXPECT_FALSE(outcomes.streamedGet);
  EXPECT_FALSE(outcomes.streamedPost);
  EXPECT_EQ(0U, outcomes.calls);
  EXPECT_EQ(before, CountOpenFds());
}

TEST(HttpExchange, BadUrlFailsWithoutResolvingAnything) {
  LoopbackResolver resolver;
  HttpClient client;
  for (const std::string url : {"ftp://h/", "https://h/", "HTTP://h/", "h", "", "http:///x", "http://:80/"}) {
    ExpectFailure(client, url);
  }
  EXPECT_TRUE(resolver.Finish().empty());
}

TEST(HttpExchange, BadUrlConnectsNowhere) {
  const BoundSocket listener(SOCK_STREAM, 8);
  HttpClient client;
  const std::string authority = "127.0.0.1:" + std::to_string(listener.Port());
  for (const std::string scheme : {"ftp://", "https://", "HTTP://", "//", ""}) {
    ExpectFailure(client, scheme + authority + "/");
  }
  EXPECT_TRUE(test::IsQuiet(listener.Fd()));
}

TEST(HttpExchange, UnknownHostFails) {
  LoopbackResolver resolver;
  HttpClient client;
  ExpectFailure(client, "http://name.invalid/");
  EXPECT_EQ((std::vector<std::string>(4, "name.invalid/1")), resolver.Finish());
}

TEST(HttpExchange, RefusedConnectionFails) {
  const BoundSocket deaf(SOCK_STREAM, -1);
  HttpClient client;
  ExpectFailure(client, deaf.Url("/"));
}

TEST(HttpExchange, UnreachableHostFailsAfterTheConnectTimeout) {
  const FullListener listener;
  HttpClient client;
  EXPECT_TRUE(client.SetTimeout(1));
  const auto start = std::chrono::steady_clock::now();
  ExpectEmpty(client.Get(listener.Url()));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

// A streaming form has no status to show; that nothing came is no failure to it.
TEST(HttpExchange, AnswerWithoutAHeadGivesStatusZeroAndIsASuccessWhenStreamed) {
  for (const std::string bytes : {"", "HTTP/1.1 200 OK\r\n"}) {
    ScriptedServer server({Answer(bytes), Answer(bytes), Answer(bytes), Answer(bytes)});
    HttpClient client;
    const Outcomes outcomes = AllForms(client, server.Url("/"));
    ExpectEmpty(outcomes.get);
    ExpectEmpty(outcomes.post);
    EXPECT_TRUE(outcomes.streamedGet);
    EXPECT_TRUE(outcomes.streamedPost);
    EXPECT_EQ(0U, outcomes.calls);
  }
}

TEST(HttpExchange, ServerThatNeverAnswersGivesStatusZero) {
  ScriptedServer server({AnswerAndHold("")});
  HttpClient client;
  EXPECT_TRUE(client.SetTimeout(1));
  const auto start = std::chrono::steady_clock::now();
  ExpectEmpty(client.Get(server.Url("/")));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST(HttpExchange, ServerThatNeverClosesGivesWhatCame) {
  ScriptedServer server({AnswerAndHold(kOk + "part"), AnswerAndHold(kOk + "part")});
  HttpClient client;
  EXPECT_TRUE(client.SetTimeout(1));
  const HttpResponse response = client.Get(server.Url("/"));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("part", response.body);
  Calls calls;
  EXPECT_TRUE(client.Post(server.Url("/"), "b", CollectInto(calls), "t"));
  EXPECT_EQ((Calls{"part"}), calls);
}

TEST(HttpExchange, ResetGivesWhatCame) {
  ScriptedServer server({AnswerAndReset(kOk + "part"), AnswerAndReset("")});
  const HttpResponse response = HttpClient().Get(server.Url("/"));
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("part", response.body);
  ExpectEmpty(HttpClient().Get(server.Url("/")));
}

TEST(HttpExchange, RefusingCallbackMakesTheStreamingFormsFalse) {
  ScriptedServer server({Answer(kOk), Answer(kOk + "body")});
  EXPECT_FALSE(HttpClient().Get(server.Url("/"), Refuse));
  EXPECT_FALSE(HttpClient().Post(server.Url("/"), "b", Refuse, "t"));
}

TEST(HttpExchange, LeavesNoDescriptorOpen) {
  const std::size_t before = CountOpenFds();
  {
    ScriptedServer server({Answer(kOk), Answer(""), AnswerAndReset(kOk), Answer(kOk), Answer(kOk)});
    const std::size_t serving = CountOpenFds();
    HttpClient client;
    for (int i = 0; i < 3; ++i) {
      (void)client.Get(server.Url("/"));
    }
    EXPECT_TRUE(client.Post(
        server.Url("/"), "b", [](const char*, unsigned int) { return true; }, "t"));
    EXPECT_FALSE(client.Get(server.Url("/"), Refuse));
    (void)server.Finish();
    EXPECT_LT(CountOpenFds(), serving);
  }
  EXPECT_EQ(before, CountOpenFds());
}

TEST(HttpExchange, LeavesHeadersAndTimeoutUnchanged) {
  ScriptedServer server({Answer(kOk), Answer(kOk)});
  HttpClient client;
  EXPECT_TRUE(client.SetTimeout(3000));
  client.AddHeader("A", "1");
  EXPECT_EQ(200, client.Post(server.Url("/"), "b", "t").status);
  EXPECT_EQ(200, client.Get(server.Url("/")).status);
  ExpectTimeouts(client, 3);
  EXPECT_EQ("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\nA: 1\r\n\r\n", server.Finish().at(1).request);
}

TEST(HttpExchange, EveryRequestHasItsOwnConnectionAndClosesIt) {
  ScriptedServer server({Answer(kOk), Answer(kOk), Answer(kOk)});
  HttpClient client;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(200, client.Get(server.Url("/")).status);
  }
  ASSERT_EQ(3U, server.Finish().size());
  for (const test::Visit& visit : server.Finish()) {
    EXPECT_EQ(0U, visit.openEarlier);
  }
}

TEST(HttpExchange, CopiedClientIsIndependent) {
  HttpClient client;
  client.AddHeader("A", "1");
  HttpClient copy(client);
  client.ClearHeaders();
  EXPECT_EQ("GET / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nA: 1\r\n\r\n",
            SentInOnePiece(copy, "GET", {"h", "/", 80}, "", ""));
}

}  // namespace
}  // namespace kiv::net
