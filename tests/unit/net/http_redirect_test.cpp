#include <gtest/gtest.h>
#include <kiv/net.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/support.h"
#include "tests/unit/net/scripted_server.h"

namespace kiv::net {
namespace {

using test::Answer;
using test::AnswerAndReset;
using test::CountOpenFds;
using test::Script;
using test::ScriptedServer;
using test::Visit;
using Calls = std::vector<std::string>;
using Headers = std::vector<std::pair<std::string, std::string>>;

const std::string kFound = "HTTP/1.1 200 Found\r\n\r\nX: 1\n";

// The client looks for the location behind the head only, so that is where these answers have it.
Script RedirectTo(const std::string& location, int status = 302) {
  return Answer("HTTP/1.1 " + std::to_string(status) + " Elsewhere\r\n\r\nLocation: " + location + "\n\n");
}

HttpResponse RedirectResponse(int status, Headers headers) { return {status, "Old", "old", std::move(headers)}; }

HttpClient::BodyCallback CollectInto(Calls& calls) {
  return [&calls](const char* data, unsigned int length) {
    calls.emplace_back(data, length);
    return true;
  };
}

void ExpectOld(const HttpResponse& response, int status) {
  EXPECT_EQ(status, response.status);
  EXPECT_EQ("Old", response.reason);
  EXPECT_EQ("old", response.body);
}

void ExpectFound(const HttpResponse& response) {
  EXPECT_EQ(200, response.status);
  EXPECT_EQ("Found", response.reason);
  EXPECT_EQ("X: 1\n", response.body);
  EXPECT_EQ((Headers{{"X", "1"}}), response.headers);
}

void ExpectEmpty(const HttpResponse& response) {
  EXPECT_EQ(0, response.status);
  EXPECT_EQ("", response.reason);
  EXPECT_EQ("", response.body);
  EXPECT_TRUE(response.headers.empty());
}

std::string PlainGet(const std::string& path) {
  return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

// -------------------------------------------------------------------------------------------------- HandleRedirect

TEST(HandleRedirect, NoRedirectsLeftKeepsTheResponse) {
  for (const int left : {0, -1, -5}) {
    ScriptedServer server({Answer(kFound)});
    HttpResponse response = RedirectResponse(302, {{"Location", server.Url("/x")}});
    EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/"), left, nullptr));
    ExpectOld(response, 302);
    EXPECT_TRUE(server.Finish().empty());
  }
}

TEST(HandleRedirect, OneRedirectLeftIsEnough) {
  ScriptedServer server({Answer(kFound)});
  HttpResponse response = RedirectResponse(302, {{"Location", server.Url("/x")}});
  EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/"), 1, nullptr));
  ExpectFound(response);
}

TEST(HandleRedirect, Follows301And302And307) {
  for (const int status : {301, 302, 307}) {
    ScriptedServer server({Answer(kFound)});
    HttpResponse response = RedirectResponse(status, {{"Location", server.Url("/x?y#z")}});
    EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/"), 5, nullptr));
    ExpectFound(response);
    EXPECT_EQ(PlainGet("/x?y#z"), server.Finish().at(0).request) << status;
  }
}

TEST(HandleRedirect, FollowsNoOtherStatus) {
  for (const int status : {0, -302, 200, 201, 300, 303, 304, 305, 306, 308, 399, 404, 500}) {
    ScriptedServer server({Answer(kFound)});
    HttpResponse response = RedirectResponse(status, {{"Location", server.Url("/x")}});
    EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/"), 5, nullptr));
    ExpectOld(response, status);
    EXPECT_TRUE(server.Finish().empty());
  }
}

TEST(HandleRedirect, NamesThatBeginWithLocationCount) {
  for (const std::string name : {"Location", "Locations", "Location-X", "Location:"}) {
    ScriptedServer server({Answer(kFound)});
    HttpResponse response = RedirectResponse(302, {{"Other", server.Url("/no")}, {name, server.Url("/x")}});
    EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/"), 5, nullptr));
    ExpectFound(response);
    EXPECT_EQ(PlainGet("/x"), server.Finish().at(0).request) << name;
  }
}

TEST(HandleRedirect, OtherNamesAndLowerCaseDoNotCount) {
  ScriptedServer server({Answer(kFound)});
  const std::string url = server.Url("/x");
  HttpResponse response = RedirectResponse(302, {{"location", url},
                                                 {"LOCATION", url},
                                                 {"Locatio", url},
                                                 {"", url},
                                                 {"X-Location", url},
                                                 {" Location", url},
                                                 {"Content-Location", url}});
  EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/"), 5, nullptr));
  ExpectOld(response, 302);
  EXPECT_EQ(7U, response.headers.size());
  EXPECT_TRUE(server.Finish().empty());
}

TEST(HandleRedirect, FirstLocationWins) {
  ScriptedServer server({Answer(kFound)});
  HttpResponse response = RedirectResponse(302, {{"Locations", server.Url("/1")}, {"Location", server.Url("/2")}});
  EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/"), 5, nullptr));
  EXPECT_EQ(PlainGet("/1"), server.Finish().at(0).request);
}

TEST(HandleRedirect, EmptyFirstLocationKeepsTheResponse) {
  ScriptedServer server({Answer(kFound)});
  HttpResponse response = RedirectResponse(302, {{"Location", ""}, {"Location", server.Url("/2")}});
  EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/"), 5, nullptr));
  ExpectOld(response, 302);
  EXPECT_TRUE(server.Finish().empty());
}

TEST(HandleRedirect, RelativeLocationStaysOnHostAndPort) {
  for (const std::string location : {"/", "/next?q#f", "//other/x", "/:1/x"}) {
    ScriptedServer server({Answer(kFound)});
    HttpResponse response = RedirectResponse(302, {{"Location", location}});
    EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/a/b?c"), 5, nullptr));
    ExpectFound(response);
    EXPECT_EQ(PlainGet(location), server.Finish().at(0).request);
  }
}

// An address of this process's own, so that nobody else has a server on its port.
TEST(HandleRedirect, RelativeLocationAfterAUrlWithoutPortGoesToPort80) {
  const std::string ip = "127.80." + std::to_string(::getpid() / 256 % 256) + "." + std::to_string(::getpid() % 256);
  ScriptedServer server({Answer(kFound), Answer(kFound)}, ip, 80);
  if (!server.IsListening()) {
    ASSERT_EQ(nullptr, std::getenv("CI")) << "cannot listen on port 80";
    GTEST_SKIP() << "needs the privilege to listen on port 80";
  }
  for (const std::string& url : {"http://" + ip + "/a", "http://" + ip + ":80"}) {
    HttpResponse response = RedirectResponse(302, {{"Location", "/next"}});
    EXPECT_TRUE(HttpClient().HandleRedirect(response, url, 5, nullptr));
    ExpectFound(response);
  }
  EXPECT_EQ("GET /next HTTP/1.1\r\nHost: " + ip + "\r\nConnection: close\r\n\r\n", server.Finish().at(0).request);
}

TEST(HandleRedirect, RelativeLocationAfterABadUrlKeepsTheResponse) {
  for (const std::string url : {"https://127.0.0.1/", "", "http:///a", "/a"}) {
    HttpResponse response = RedirectResponse(302, {{"Location", "/next"}});
    EXPECT_TRUE(HttpClient().HandleRedirect(response, url, 5, nullptr));
    ExpectOld(response, 302);
  }
}

TEST(HandleRedirect, LocationOfAnotherSchemeOrFormFailsAndEmptiesTheResponse) {
  ScriptedServer server({Answer(kFound)});
  for (const std::string location : {"https://127.0.0.1/", "next", "./next", "?q", "HTTP://127.0.0.1/", "http://"}) {
    HttpResponse response = RedirectResponse(302, {{"Location", location}});
    EXPECT_FALSE(HttpClient().HandleRedirect(response, server.Url("/a"), 5, nullptr)) << location;
    ExpectEmpty(response);
  }
  EXPECT_TRUE(server.Finish().empty());
}

TEST(HandleRedirect, TargetWithoutAnAnswerFailsAndEmptiesTheResponse) {
  ScriptedServer server({Answer("")});
  HttpResponse response = RedirectResponse(302, {{"Location", "/next"}});
  EXPECT_FALSE(HttpClient().HandleRedirect(response, server.Url("/a"), 5, nullptr));
  ExpectEmpty(response);
}

TEST(HandleRedirect, TargetOfAnyStatusReplacesTheResponse) {
  ScriptedServer server({Answer("HTTP/1.1 404 Not Found\r\n\r\nnothing here")});
  HttpResponse response = RedirectResponse(302, {{"Location", "/next"}});
  EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/a"), 5, nullptr));
  EXPECT_EQ(404, response.status);
  EXPECT_EQ("Not Found", response.reason);
  EXPECT_EQ("nothing here", response.body);
  EXPECT_TRUE(response.headers.empty());
}

TEST(HandleRedirect, StreamingFormLeavesTheResponseAndStreamsTheTarget) {
  ScriptedServer server({Answer(kFound)});
  HttpResponse response = RedirectResponse(302, {{"Location", "/next"}});
  Calls calls;
  EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/a"), 5, CollectInto(calls)));
  ExpectOld(response, 302);
  EXPECT_EQ((Calls{"X: 1\n"}), calls);
}

TEST(HandleRedirect, StreamingFormReturnsWhatItsGetReturns) {
  ScriptedServer server({Answer(""), Answer(kFound)});
  Calls calls;
  HttpResponse response = RedirectResponse(302, {{"Location", "/next"}});
  EXPECT_TRUE(HttpClient().HandleRedirect(response, server.Url("/a"), 5, CollectInto(calls)));
  EXPECT_FALSE(
      HttpClient().HandleRedirect(response, server.Url("/a"), 5, [](const char*, unsigned int) { return false; }));
  response.headers = {{"Location", "https://127.0.0.1/"}};
  EXPECT_FALSE(HttpClient().HandleRedirect(response, server.Url("/a"), 5, CollectInto(calls)));
  EXPECT_TRUE(calls.empty());
}

// ---------------------------------------------------------------------------------------------------- Get and Post

// Deliberate behaviour of the client: lines of the head are not headers.
TEST(HttpRedirect, LocationInTheHeadIsNotFollowed) {
  ScriptedServer server({Answer("HTTP/1.1 302 Found\r\nLocation: /b\r\n\r\n"), Answer(kFound)});
  const HttpResponse response = HttpClient().Get(server.Url("/a"));
  EXPECT_EQ(302, response.status);
  EXPECT_EQ("Found", response.reason);
  EXPECT_EQ("", response.body);
  EXPECT_TRUE(response.headers.empty());
  EXPECT_EQ(1U, server.Finish().size());
}

TEST(HttpRedirect, LocationBehindTheHeadIsFollowed) {
  ScriptedServer target({Answer(kFound)});
  ScriptedServer server({RedirectTo(target.Url("/x"), 301)});
  ExpectFound(HttpClient().Get(server.Url("/a")));
  EXPECT_EQ(PlainGet("/x"), target.Finish().at(0).request);
}

TEST(HttpRedirect, StatusOtherThanThoseFollowedStands) {
  for (const int status : {303, 308}) {
    ScriptedServer server({RedirectTo("/b", status), Answer(kFound)});
    const HttpResponse response = HttpClient().Get(server.Url("/a"));
    EXPECT_EQ(status, response.status);
    EXPECT_EQ("Location: /b\n\n", response.body);
    EXPECT_EQ((Headers{{"Location", "/b"}}), response.headers);
    EXPECT_EQ(1U, server.Finish().size());
  }
}

TEST(HttpRedirect, PostIsFollowedWithAGetWithoutBody) {
  for (const int status : {301, 302, 307}) {
    ScriptedServer server({RedirectTo("/b", status), Answer(kFound)});
    ExpectFound(HttpClient().Post(server.Url("/a"), "a=1", "text/type"));
    ASSERT_EQ(2U, server.Finish().size());
    EXPECT_EQ("POST /a HTTP/1.1", server.Finish()[0].request.substr(0, 16));
    EXPECT_EQ(PlainGet("/b"), server.Finish()[1].request) << status;
  }
}

TEST(HttpRedirect, StreamingPostIsFollowedWithAGetWithoutBody) {
  ScriptedServer server({RedirectTo("/b"), Answer(kFound)});
  Calls calls;
  EXPECT_TRUE(HttpClient().Post(server.Url("/a"), "a=1", CollectInto(calls), "text/type"));
  EXPECT_EQ((Calls{"Location: /b\n\n", "X: 1\n"}), calls);
  EXPECT_EQ(PlainGet("/b"), server.Finish().at(1).request);
}

std::vector<Script> Chain(int redirects) {
  std::vector<Script> scripts;
  for (int hop = 1; hop <= redirects; ++hop) {
    scripts.push_back(RedirectTo("/" + std::to_string(hop), hop % 2 == 0 ? 301 : 307));
  }
  scripts.push_back(Answer(kFound));
  return scripts;
}

// Deliberate: each hop starts with five redirects again, and closes its connection when the later ones are done.
void ExpectWholeChain(const std::vector<Visit>& visits, std::size_t redirects) {
  ASSERT_EQ(redirects + 1, visits.size());
  for (std::size_t hop = 0; hop <= redirects; ++hop) {
    EXPECT_EQ(PlainGet("/" + std::to_string(hop)), visits[hop].request);
    EXPECT_EQ(hop, visits[hop].openEarlier);
  }
}

TEST(HttpRedirect, ChainHasNoLimitAndKeepsEveryConnectionOpen) {
  const std::size_t before = CountOpenFds();
  ScriptedServer server(Chain(15));
  ExpectFound(HttpClient().Get(server.Url("/0")));
  ExpectWholeChain(server.Finish(), 15);
  EXPECT_EQ(before, CountOpenFds());
}

TEST(HttpRedirect, StreamedChainDeliversEveryBodyInOrder) {
  const std::size_t before = CountOpenFds();
  ScriptedServer server(Chain(15));
  Calls calls;
  EXPECT_TRUE(HttpClient().Get(server.Url("/0"), CollectInto(calls)));
  ExpectWholeChain(server.Finish(), 15);
  ASSERT_EQ(16U, calls.size());
  EXPECT_EQ("Location: /1\n\n", calls.front());
  EXPECT_EQ("Location: /15\n\n", calls[14]);
  EXPECT_EQ("X: 1\n", calls.back());
  EXPECT_EQ(before, CountOpenFds());
}

TEST(HttpRedirect, RefusalOfTheRedirectsOwnBodyEndsItThere) {
  ScriptedServer server(Chain(2));
  EXPECT_FALSE(HttpClient().Get(server.Url("/0"), [](const char*, unsigned int) { return false; }));
  EXPECT_EQ(1U, server.Finish().size());
}

TEST(HttpRedirect, RefusalInTheMiddleOfAChainEndsItThere) {
  const std::size_t before = CountOpenFds();
  ScriptedServer server(Chain(4));
  int calls = 0;
  EXPECT_FALSE(HttpClient().Get(server.Url("/0"), [&calls](const char*, unsigned int) { return ++calls < 3; }));
  EXPECT_EQ(3U, server.Finish().size());
  EXPECT_EQ(before, CountOpenFds());
}

TEST(HttpRedirect, FailedTargetGivesAnEmptyResponseAndNotTheRedirect) {
  const std::size_t before = CountOpenFds();
  ScriptedServer server({RedirectTo("https://127.0.0.1/"), RedirectTo("/b"), AnswerAndReset(""), RedirectTo("next")});
  HttpClient client;
  ExpectEmpty(client.Get(server.Url("/a")));
  ExpectEmpty(client.Get(server.Url("/a")));
  ExpectEmpty(client.Post(server.Url("/a"), "b", "t"));
  EXPECT_EQ(4U, server.Finish().size());
  EXPECT_EQ(before, CountOpenFds());
}

TEST(HttpRedirect, FailedTargetMakesTheStreamingFormsFalse) {
  ScriptedServer server({RedirectTo("https://127.0.0.1/"), RedirectTo("next")});
  Calls calls;
  EXPECT_FALSE(HttpClient().Get(server.Url("/a"), CollectInto(calls)));
  EXPECT_FALSE(HttpClient().Post(server.Url("/a"), "b", CollectInto(calls), "t"));
  EXPECT_EQ((Calls{"Location: https://127.0.0.1/\n\n", "Location: next\n\n"}), calls);
}

TEST(HttpRedirect, UnreachableTargetFails) {
  const internal::UniqueFd deaf(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(0, ::bind(deaf.Get(), reinterpret_cast<sockaddr*>(&address), size));
  ASSERT_EQ(0, ::getsockname(deaf.Get(), reinterpret_cast<sockaddr*>(&address), &size));
  const std::string target = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
  ScriptedServer server({RedirectTo(target), RedirectTo(target)});
  Calls calls;
  ExpectEmpty(HttpClient().Get(server.Url("/a")));
  EXPECT_FALSE(HttpClient().Get(server.Url("/a"), CollectInto(calls)));
  EXPECT_EQ(2U, server.Finish().size());
}

// Finds the client's end of a connection to this very process.
int PeerInThisProcess(int connection) {
  sockaddr_in wanted{};
  socklen_t size = sizeof wanted;
  (void)::getpeername(connection, reinterpret_cast<sockaddr*>(&wanted), &size);
  for (int fd = 0; fd < 1024; ++fd) {
    sockaddr_in own{};
    size = sizeof own;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size) == 0 && own.sin_family == AF_INET &&
        own.sin_port == wanted.sin_port) {
      return fd;
    }
  }
  return -1;
}

TEST(HttpRedirect, HeadersAndTimeoutAreCarriedToTheTarget) {
  timeval limit{};
  const Script noteTimeout = [&limit](internal::UniqueFd& connection) {
    socklen_t size = sizeof limit;
    (void)::getsockopt(PeerInThisProcess(connection.Get()), SOL_SOCKET, SO_RCVTIMEO, &limit, &size);
    Answer(kFound)(connection);
  };
  ScriptedServer server({RedirectTo("/1"), RedirectTo("/2"), noteTimeout});
  HttpClient client;
  client.AddHeader("B", "2");
  client.AddHeader("A", "1");
  EXPECT_TRUE(client.SetTimeout(7001));
  ExpectFound(client.Post(server.Url("/0"), "b", "t"));
  EXPECT_EQ("GET /2 HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\nB: 2\r\nA: 1\r\n\r\n",
            server.Finish().at(2).request);
  EXPECT_EQ(8, limit.tv_sec);
}

// Deliberate: only what came in the same read as the end of the head counts.
TEST(HttpRedirect, LocationThatComesInALaterReadIsNotFollowed) {
  std::promise<void> headWasRead;
  const Script answerInTwoReads = [&headWasRead](internal::UniqueFd& connection) {
    test::SendAll(connection.Get(), "HTTP/1.1 302 Found\r\n\r\n");
    (void)headWasRead.get_future().wait_for(std::chrono::seconds(10));
    Answer("Location: /b\n\n")(connection);
  };
  ScriptedServer server({answerInTwoReads, Answer(kFound)});
  Calls calls;
  EXPECT_TRUE(HttpClient().Get(server.Url("/a"), [&](const char* data, unsigned int length) {
    if (calls.empty()) {
      headWasRead.set_value();
    }
    return CollectInto(calls)(data, length);
  }));
  EXPECT_EQ((Calls{"", "Location: /b\n\n"}), calls);
  EXPECT_EQ(1U, server.Finish().size());
}

}  // namespace
}  // namespace kiv::net
