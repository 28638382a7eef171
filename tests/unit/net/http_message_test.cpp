#include "net/http_message.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"

namespace kiv::net {
namespace {

using ParsedUrl = HttpClient::ParsedUrl;

const std::string kNul(1, '\0');

// ------------------------------------------------------------------------------------------------------ requests

TEST(BuildRequest, GetWithOneHeaderIsExactlyTheseBytes) {
  EXPECT_EQ("GET /x HTTP/1.1\r\nHost: h\r\nConnection: close\r\nAccept: */*\r\n\r\n",
            BuildRequest("GET", ParsedUrl{"h", "/x", 8080}, "", "", {{"Accept", "*/*"}}));
}

TEST(BuildRequest, HostLineNeverNamesThePort) {
  const std::string expected = "GET / HTTP/1.1\r\nHost: device.local\r\nConnection: close\r\n\r\n";
  for (const unsigned short port : std::vector<unsigned short>{1, 80, 443, 65535}) {
    EXPECT_EQ(expected, BuildRequest("GET", ParsedUrl{"device.local", "/", port}, "", "", {})) << port;
  }
}

TEST(BuildRequest, EmptyBodyWritesNoContentLinesEvenWithAType) {
  EXPECT_EQ("POST /p HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n",
            BuildRequest("POST", ParsedUrl{"h", "/p", 80}, "", "text/plain", {}));
}

TEST(BuildRequest, BodyComesWithTypeAndLengthBehindTheConnectionLine) {
  EXPECT_EQ(
      "POST /form HTTP/1.1\r\nHost: h\r\nConnection: close\r\n"
      "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 3\r\n\r\na=1",
      BuildRequest("POST", ParsedUrl{"h", "/form", 80}, "a=1", "application/x-www-form-urlencoded", {}));
}

TEST(BuildRequest, EmptyContentTypeIsWrittenEmpty) {
  EXPECT_EQ(
      "POST / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nContent-Type: \r\nContent-Length: 5\r\n\r\n"
      "12345",
      BuildRequest("POST", ParsedUrl{"h", "/", 80}, "12345", "", {}));
}

TEST(BuildRequest, HeadersFollowTheOwnLinesInOrderWithRepeats) {
  const HttpHeaders headers = {{"Content-Type", "b"}, {"X", "2"}, {"Host", "other"}, {"X", "1"}, {"X", "2"}};
  EXPECT_EQ(
      "PUT /q?a#f HTTP/1.1\r\nHost: h\r\nConnection: close\r\nContent-Type: a\r\nContent-Length: 1\r\n"
      "Content-Type: b\r\nX: 2\r\nHost: other\r\nX: 1\r\nX: 2\r\n\r\nz",
      BuildRequest("PUT", ParsedUrl{"h", "/q?a#f", 80}, "z", "a", headers));
}

TEST(BuildRequest, NothingIsCheckedOrEscaped) {
  const HttpHeaders headers = {{"", ""}, {"A\r\nB: c", "d\ne"}, {kNul, " v "}};
  EXPECT_EQ("g t / /% HTTP/1.1\r\nHost: a:b\r\nConnection: close\r\n: \r\nA\r\nB: c: d\ne\r\n" + kNul + ":  v \r\n\r\n",
            BuildRequest("g t", ParsedUrl{"a:b", "/ /%", 80}, "", "", headers));
}

TEST(BuildRequest, BodyBytesAreUnchanged) {
  const std::string body = "\r\n\r\n" + kNul + "\xff\x80 end\n";
  const std::string request = BuildRequest("POST", ParsedUrl{"h", "/", 80}, body, "t", {});
  EXPECT_EQ("POST / HTTP/1.1\r\nHost: h\r\nConnection: close\r\nContent-Type: t\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body,
            request);
}

// --------------------------------------------------------------------------------------------------- status line

struct StatusCase {
  std::string head;
  int status;
  std::string reason;
};

TEST(ParseStatusLine, GivesTheCodeAndTheRestAsReason) {
  const std::vector<StatusCase> cases = {
      {"HTTP/1.1 200 OK\r\nX: y\r\n\r\n", 200, "OK"},
      {"HTTP/1.1 404 Not Found\r\n\r\n", 404, "Not Found"},
      {"HTTP/1.1 200\r\n\r\n", 200, ""},
      {"HTTP/1.1 500 Internal Server Error", 500, "Internal Server Error"},
      {"HTTP/1.1 200 OK\nX: y", 200, "OK"},
      {"HTTP/1.1 200 OK\r", 200, "OK"},
      {" \t HTTP/1.1 200 OK \v\f\r\n", 200, "OK"},
      {"HTTP/1.1 200 \r\n", 200, ""},
      {"HTTP/1.1\t200\tOK\r\n", 0, ""},
      {"ICY 200 OK\r\n", 200, "OK"},
      {"HTTP/1.1 200 OK" + kNul + "\r\n", 200, "OK"},
  };
  for (const StatusCase& c : cases) {
    HttpResponse response;
    ParseStatusLine(c.head, response);
    EXPECT_EQ(c.status, response.status) << c.head;
    EXPECT_EQ(c.reason, response.reason) << c.head;
  }
}

// Every blank separates two fields, so that a doubled one makes an empty field.
TEST(ParseStatusLine, DoubledBlanksMakeEmptyFields) {
  const std::vector<StatusCase> cases = {
      {"HTTP/1.1  200 OK\r\n", 0, "200 OK"},
      {"HTTP/1.1 200  OK\r\n", 200, " OK"},
      {"HTTP/1.1 404 Not  Found\r\n", 404, "Not  Found"},
      {"HTTP/1.1   200\r\n", 0, " 200"},
  };
  for (const StatusCase& c : cases) {
    HttpResponse response;
    ParseStatusLine(c.head, response);
    EXPECT_EQ(c.status, response.status) << c.head;
    EXPECT_EQ(c.reason, response.reason) << c.head;
  }
}

TEST(ParseStatusLine, CodeIsWhatStrtolTakes) {
  const std::vector<std::pair<std::string, int>> cases = {
      {"abc", 0},   {"200abc", 200}, {"-1", -1},  {"+7", 7},  {"0200", 200}, {"0x10", 0},
      {"\t31", 31}, {"1000", 1000},  {"x200", 0}, {"99", 99}, {"0", 0},      {"2 0", 2},
  };
  for (const auto& [field, expected] : cases) {
    HttpResponse response;
    ParseStatusLine("HTTP/1.1 " + field + "\r\n", response);
    EXPECT_EQ(expected, response.status) << field;
  }
}

TEST(ParseStatusLine, WhatIsMissingStaysAsItWas) {
  for (const std::string head : {"", "\r\n\r\n", "HTTP/1.1\r\n", "   \n", "\nHTTP/1.1 200 OK\r\n"}) {
    HttpResponse response;
    response.status = 7;
    response.reason = "before";
    ParseStatusLine(head, response);
    EXPECT_EQ(7, response.status) << head;
    EXPECT_EQ("before", response.reason) << head;
  }
}

// -------------------------------------------------------------------------------------------------- header lines

TEST(ParseHeaderLines, SplitsAtTheFirstColonAndTrims) {
  HttpHeaders headers;
  ParseHeaderLines("Location: http://h:1/x\r\n \tName \t:\v value with: colons \f\nEmpty:\r\n", headers);
  const HttpHeaders expected = {{"Location", "http://h:1/x"}, {"Name", "value with: colons"}, {"Empty", ""}};
  EXPECT_EQ(expected, headers);
}

TEST(ParseHeaderLines, SkipsLinesWithoutNameAndKeepsRepeatsInOrder) {
  HttpHeaders headers = {{"already", "there"}};
  ParseHeaderLines("B: 1\n: nameless\nno colon\nA: 2\nB: 1\n", headers);
  const HttpHeaders expected = {{"already", "there"}, {"B", "1"}, {"A", "2"}, {"B", "1"}};
  EXPECT_EQ(expected, headers);
}

TEST(ParseHeaderLines, StopsAtALineOfWhitespace) {
  for (const std::string empty : {"\n", "\r\n", " \t\r\n", "\v\f\n"}) {
    HttpHeaders headers;
    ParseHeaderLines("A: 1\n" + empty + "B: 2\n", headers);
    EXPECT_EQ((HttpHeaders{{"A", "1"}}), headers);
  }
}

TEST(ParseHeaderLines, LastLineWithoutLineEndDoesNotCount) {
  HttpHeaders headers;
  ParseHeaderLines("A: 1\r\nB: 2\r", headers);
  EXPECT_EQ((HttpHeaders{{"A", "1"}}), headers);
  ParseHeaderLines("C: 3", headers);
  ParseHeaderLines("", headers);
  EXPECT_EQ(1U, headers.size());
}

// ------------------------------------------------------------------------------------------- answers cut in pieces

using Pieces = std::vector<std::string>;

struct Reading {
  HttpResponse response;
  std::vector<std::string> calls;  // What the callback was given, call by call.
};

// A second, slow statement of what an answer means. Status, reason and body depend on the bytes alone. The headers and
// the calls depend on the cut as well: header lines are those behind the empty line that came in the same read as its
// last byte.
Reading Expected(const Pieces& pieces) {
  Reading expected;
  std::string seen;
  bool complete = false;
  for (const std::string& piece : pieces) {
    seen += piece;
    if (complete) {
      expected.calls.push_back(piece);
    }
    for (std::size_t i = 0; !complete && i + 4 <= seen.size(); ++i) {
      if (seen.compare(i, 4, "\r\n\r\n") == 0) {
        complete = true;
        expected.calls.push_back(seen.substr(i + 4));
      }
    }
  }
  if (!complete) {
    return expected;
  }
  for (const std::string& call : expected.calls) {
    expected.response.body += call;
  }
  std::istringstream first(seen.substr(0, seen.find('\r')));
  std::string version;
  first >> version >> expected.response.status >> std::ws;
  std::getline(first, expected.response.reason);
  std::istringstream lines(expected.calls.front());
  for (std::string line; std::getline(lines, line) && !lines.eof() && line != "\r" && !line.empty();) {
    const std::size_t colon = line.find(": ");
    if (colon != std::string::npos) {
      const std::size_t end = line.back() == '\r' ? line.size() - 1 : line.size();
      expected.response.headers.emplace_back(line.substr(0, colon), line.substr(colon + 2, end - colon - 2));
    }
  }
  return expected;
}

Reading Feed(const Pieces& pieces, bool stream) {
  Reading reading;
  HttpClient::BodyCallback callback;
  if (stream) {
    callback = [&reading](const char* data, unsigned int length) {
      reading.calls.emplace_back(data, length);
      return true;
    };
  }
  ResponseReader reader(reading.response, callback);
  for (const std::string& piece : pieces) {
    EXPECT_TRUE(reader.Feed(piece.data(), piece.size()));
  }
  return reading;
}

// A SOCK_SEQPACKET pair hands every piece to exactly one receive.
Reading Receive(const Pieces& pieces, bool stream) {
  int fds[2] = {-1, -1};
  EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
  const internal::UniqueFd reader(fds[0]);
  internal::UniqueFd writer(fds[1]);
  for (const std::string& piece : pieces) {
    EXPECT_EQ(static_cast<ssize_t>(piece.size()), ::send(writer.Get(), piece.data(), piece.size(), MSG_DONTWAIT));
  }
  writer.Reset();
  Reading reading;
  HttpClient::BodyCallback callback;
  if (stream) {
    callback = [&reading](const char* data, unsigned int length) {
      reading.calls.emplace_back(data, length);
      return true;
    };
  }
  EXPECT_TRUE(HttpClient().ReadResponse(reader.Get(), reading.response, callback));
  return reading;
}

std::string Describe(const Pieces& pieces) {
  std::string text;
  for (const std::string& piece : pieces) {
    text += ::testing::PrintToString(piece) + " | ";
  }
  return text;
}

using Reader = Reading (*)(const Pieces&, bool);

// Stops at the first difference, so that a broken reader does not fill the screen.
void ExpectModel(Reader read, const Pieces& pieces) {
  const Reading expected = Expected(pieces);
  const Reading collected = read(pieces, false);
  const Reading streamed = read(pieces, true);
  ASSERT_EQ(expected.response.status, collected.response.status) << Describe(pieces);
  ASSERT_EQ(expected.response.reason, collected.response.reason) << Describe(pieces);
  ASSERT_EQ(expected.response.headers, collected.response.headers) << Describe(pieces);
  ASSERT_EQ(expected.response.body, collected.response.body) << Describe(pieces);
  ASSERT_EQ(expected.response.status, streamed.response.status) << Describe(pieces);
  ASSERT_EQ(expected.response.headers, streamed.response.headers) << Describe(pieces);
  ASSERT_EQ("", streamed.response.body) << Describe(pieces);
  ASSERT_EQ(expected.calls, streamed.calls) << Describe(pieces);
}

void ExpectModelForEveryCut(Reader read, const std::string& answer) {
  for (std::size_t i = 1; i < answer.size(); ++i) {
    ASSERT_NO_FATAL_FAILURE(ExpectModel(read, {answer.substr(0, i), answer.substr(i)}));
  }
}

void ExpectModelForEveryTwoCuts(Reader read, const std::string& answer) {
  for (std::size_t i = 1; i < answer.size(); ++i) {
    for (std::size_t j = i + 1; j < answer.size(); ++j) {
      ASSERT_NO_FATAL_FAILURE(ExpectModel(read, {answer.substr(0, i), answer.substr(i, j - i), answer.substr(j)}));
    }
  }
}

void ExpectModelByteByByte(Reader read, const std::string& answer) {
  Pieces pieces;
  for (const char byte : answer) {
    pieces.emplace_back(1, byte);
  }
  ExpectModel(read, pieces);
}

class ResponseCuts : public ::testing::TestWithParam<std::string> {};

TEST_P(ResponseCuts, FeedMatchesTheModelUncut) { ExpectModel(&Feed, {GetParam()}); }
TEST_P(ResponseCuts, FeedMatchesTheModelAtEveryCut) { ExpectModelForEveryCut(&Feed, GetParam()); }
TEST_P(ResponseCuts, FeedMatchesTheModelAtEveryTwoCuts) { ExpectModelForEveryTwoCuts(&Feed, GetParam()); }
TEST_P(ResponseCuts, FeedMatchesTheModelByteByByte) { ExpectModelByteByByte(&Feed, GetParam()); }
TEST_P(ResponseCuts, SocketMatchesTheModelUncut) { ExpectModel(&Receive, {GetParam()}); }
TEST_P(ResponseCuts, SocketMatchesTheModelAtEveryCut) { ExpectModelForEveryCut(&Receive, GetParam()); }
TEST_P(ResponseCuts, SocketMatchesTheModelAtEveryTwoCuts) { ExpectModelForEveryTwoCuts(&Receive, GetParam()); }
TEST_P(ResponseCuts, SocketMatchesTheModelByteByByte) { ExpectModelByteByByte(&Receive, GetParam()); }

INSTANTIATE_TEST_SUITE_P(Answers, ResponseCuts,
                         ::testing::Values("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nhello\nthere",
                                           "HTTP/1.1 301 Moved\r\nA: 1\r\n\r\nLocation: http://h/x\n\nB: 2\n",
                                           "HTTP/1.1 404 Not Found\r\n\r\nX: 1\r\nY: 2\r\n\r\nZ: 3\r\n\r\nmore",
                                           "HTTP/1.1 200 OK\r\nX: y\r\n\r\n", "HTTP/1.1 200 OK\r\nX: y\r\n\r",
                                           "HTTP/1.1 200 OK\r\n\r\r\n\n\r\n\r\n\r\n\r\n",
                                           "HTTP/1.1 206 " + kNul + " P\r\n\r\nA" + kNul + "B: b" + kNul + "\xff\n" +
                                               kNul));

TEST(ResponseFeed, EarlierContentsOfTheResponseStay) {
  HttpResponse response;
  response.body = "old ";
  response.headers = {{"Old", "1"}};
  const HttpClient::BodyCallback none;
  ResponseReader reader(response, none);
  const std::string answer = "HTTP/1.1 200 OK\r\n\r\nNew: 2\n";
  EXPECT_TRUE(reader.Feed(answer.data(), answer.size()));
  EXPECT_EQ("old New: 2\n", response.body);
  EXPECT_EQ((HttpHeaders{{"Old", "1"}, {"New", "2"}}), response.headers);
}

TEST(ResponseFeed, HeadLinesAreNotHeaders) {
  HttpResponse response;
  const HttpClient::BodyCallback none;
  ResponseReader reader(response, none);
  const std::string answer = "HTTP/1.1 302 Found\r\nLocation: /b\r\n\r\n";
  EXPECT_TRUE(reader.Feed(answer.data(), answer.size()));
  EXPECT_EQ(302, response.status);
  EXPECT_TRUE(response.headers.empty());
}

TEST(ResponseFeed, HeadThatEndsWithAPieceCallsOnceWithLengthZero) {
  const Reading reading = Feed({"HTTP/1.1 200 OK\r\n\r\n", "body"}, true);
  EXPECT_EQ((std::vector<std::string>{"", "body"}), reading.calls);
}

TEST(ResponseFeed, RefusalAtTheHeadAndInTheBodyIsPassedOn) {
  HttpResponse response;
  int calls = 0;
  const HttpClient::BodyCallback callback = [&calls](const char*, unsigned int) { return ++calls == 1; };
  ResponseReader reader(response, callback);
  const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
  EXPECT_TRUE(reader.Feed(head.data(), head.size()));
  EXPECT_FALSE(reader.Feed("x", 1));
  HttpResponse other;
  ResponseReader refused(other, callback);
  EXPECT_FALSE(refused.Feed(head.data(), head.size()));
  EXPECT_EQ(200, other.status);
}

// Returns the status that a head of this size gives when it comes one byte at a time.
int FeedHeadByteByByte(std::size_t size) {
  HttpResponse response;
  const HttpClient::BodyCallback none;
  ResponseReader reader(response, none);
  const std::string answer = "HTTP/1.1 200 OK\r\nX: " + std::string(size, 'x') + "\r\n\r\n";
  for (const char& byte : answer) {
    (void)reader.Feed(&byte, 1);
  }
  return response.status;
}

double ThreadSeconds() {
  timespec now{};
  (void)::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Processor time, for a busy machine not to count.
double SecondsToFeedHead(std::size_t size) {
  const double start = ThreadSeconds();
  (void)FeedHeadByteByByte(size);
  return ThreadSeconds() - start;
}

TEST(ResponseFeed, HeadOfFourMegabytesIsReadByteByByte) { EXPECT_EQ(200, FeedHeadByteByByte(4 * 1024 * 1024)); }

// A search that starts over with every piece would make eight times the head cost 64 times as much.
TEST(ResponseFeed, SearchForTheHeadEndIsLinear) {
  double small = SecondsToFeedHead(64 * 1024);
  double large = SecondsToFeedHead(8 * 64 * 1024);
  for (int run = 1; run < 5; ++run) {
    small = std::min(small, SecondsToFeedHead(64 * 1024));
    large = std::min(large, SecondsToFeedHead(8 * 64 * 1024));
  }
  EXPECT_LT(large, 24 * small);
}

}  // namespace
}  // namespace kiv::net
