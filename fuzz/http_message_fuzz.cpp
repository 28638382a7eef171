#include "net/http_message.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"

namespace kiv::net {
namespace {

using fuzz::Check;

constexpr std::string_view kHeadEnd = "\r\n\r\n";

// A byte of the input per piece says how long it is; the pieces go round when there are more of them.
class Cuts {
 public:
  explicit Cuts(std::string_view lengths) : mLengths(lengths) {}

  std::size_t Next() {
    if (mLengths.empty()) {
      return std::string_view::npos;
    }
    return static_cast<unsigned char>(mLengths[mNext++ % mLengths.size()]);
  }

 private:
  std::string_view mLengths;
  std::size_t mNext = 0;
};

std::vector<std::string> Pieces(std::string_view stream, Cuts cuts) {
  std::vector<std::string> pieces;
  for (std::size_t empty = 0; !stream.empty() && empty < 64;) {
    const std::string_view piece = stream.substr(0, cuts.Next());
    empty += piece.empty() ? 1 : 0;
    pieces.emplace_back(piece);
    stream.remove_prefix(piece.size());
  }
  return pieces;
}

std::string Joined(const std::vector<std::string>& pieces) {
  std::string stream;
  for (const std::string& piece : pieces) {
    stream += piece;
  }
  return stream;
}

// What all pieces together mean.
struct Expected {
  bool headComplete = false;
  HttpResponse response;
  std::size_t deliveries = 0;
};

Expected Expect(const std::vector<std::string>& pieces) {
  Expected expected;
  std::string head;
  std::size_t i = 0;
  while (i < pieces.size() && head.find(kHeadEnd) == std::string::npos) {
    head += pieces[i++];
  }
  const std::size_t end = head.find(kHeadEnd);
  if (end != std::string::npos) {
    expected.headComplete = true;
    expected.response.body = head.substr(end + kHeadEnd.size());
    ParseStatusLine(head.substr(0, end + 2), expected.response);
    ParseHeaderLines(expected.response.body, expected.response.headers);
    for (expected.deliveries = 1; i < pieces.size(); ++i, ++expected.deliveries) {
      expected.response.body += pieces[i];
    }
  }
  return expected;
}

bool operator==(const HttpResponse& a, const HttpResponse& b) {
  return a.status == b.status && a.reason == b.reason && a.headers == b.headers && a.body == b.body;
}

void CheckCollected(const std::vector<std::string>& pieces, const Expected& expected) {
  HttpResponse response;
  const HttpClient::BodyCallback none;
  ResponseReader reader(response, none);
  for (const std::string& piece : pieces) {
    // Memory of just its size, so that a read beyond the piece is seen.
    const std::unique_ptr<char[]> exact(new char[piece.size()]);
    std::copy(piece.begin(), piece.end(), exact.get());
    Check(reader.Feed(exact.get(), piece.size()), "nothing is refused without a callback");
  }
  Check(response == expected.response, "a response does not depend on how its bytes arrive");
}

void CheckStreamed(const std::vector<std::string>& pieces, const Expected& expected, std::size_t refused) {
  HttpResponse response;
  std::string body;
  std::size_t deliveries = 0;
  const HttpClient::BodyCallback callback = [&](const char* data, unsigned int size) {
    body.append(data, size);
    return ++deliveries != refused;
  };
  ResponseReader reader(response, callback);
  std::size_t fed = 0;
  bool wanted = true;
  while (wanted && fed < pieces.size()) {
    wanted = reader.Feed(pieces[fed].data(), pieces[fed].size());
    ++fed;
  }
  const bool mustRefuse = refused != 0 && refused <= expected.deliveries;
  Check(wanted == !mustRefuse, "a piece is refused when the callback refuses it");
  Check(deliveries == (mustRefuse ? refused : expected.deliveries), "the callback is called once a piece");
  Check(response.body.empty(), "a body that is streamed is not collected");
  Check(expected.response.body.compare(0, body.size(), body) == 0, "a body is streamed in order");
  Check(mustRefuse || body.size() == expected.response.body.size(), "a body is streamed whole");
}

void CheckHeaders(const HttpHeaders& headers) {
  constexpr std::string_view kTrimmed(" \f\n\r\t\v\0", 7);
  for (const auto& [name, value] : headers) {
    Check(!name.empty(), "a header has a name");
    Check(name.find(':') == std::string::npos, "the name of a header ends at the first colon");
    for (const std::string& text : {name, value}) {
      Check(text.find('\n') == std::string::npos, "a header is one line");
      Check(text.empty() || (kTrimmed.find(text.front()) == std::string_view::npos &&
                             kTrimmed.find(text.back()) == std::string_view::npos),
            "a header is trimmed");
    }
  }
}

void CheckStatusLine(const std::string& text) {
  HttpResponse response;
  ParseStatusLine(text, response);
  HttpResponse ofFirstLine;
  ParseStatusLine(text.substr(0, text.find('\n')), ofFirstLine);
  Check(response == ofFirstLine, "a status line ends with its line");
  Check(response.headers.empty() && response.body.empty(), "a status line has no headers and no body");
  Check(response.reason.find('\n') == std::string::npos, "a reason is part of one line");
}

// The first byte: how many bytes for cuts follow. The second: which call of the callback refuses, 0 for none.
void Run(std::string_view input) {
  if (input.size() < 2) {
    return;
  }
  const std::size_t cutCount = static_cast<unsigned char>(input[0]) % 8;
  const std::size_t refused = static_cast<unsigned char>(input[1]) % 8;
  input.remove_prefix(2);
  const Cuts cuts(input.substr(0, cutCount));
  input.remove_prefix(std::min(cutCount, input.size()));

  const std::vector<std::string> pieces = Pieces(input, cuts);
  const Expected expected = Expect(pieces);
  CheckCollected(pieces, expected);
  CheckStreamed(pieces, expected, refused);
  CheckHeaders(expected.response.headers);
  const std::string stream = Joined(pieces);
  CheckStatusLine(stream);
  HttpHeaders headers;
  ParseHeaderLines(stream, headers);
  CheckHeaders(headers);
}

}  // namespace
}  // namespace kiv::net

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kiv::net::Run({reinterpret_cast<const char*>(data), size});
  return 0;
}
