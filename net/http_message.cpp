#include "net/http_message.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "utils/split.h"

namespace kiv::net {
namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";

void AppendLine(std::string& request, const std::string& name, const std::string& value) {
  request += name;
  request += ": ";
  request += value;
  request += "\r\n";
}

// Saturates as a 32-bit long does, on every architecture.
int ParseStatus(const std::string& field) {
  const long value = std::strtol(field.c_str(), nullptr, 10);
  constexpr long kMin = std::numeric_limits<std::int32_t>::min();
  constexpr long kMax = std::numeric_limits<std::int32_t>::max();
  return static_cast<int>(std::clamp(value, kMin, kMax));
}

}  // namespace

std::string BuildRequest(const std::string& method, const HttpClient::ParsedUrl& url, const std::string& body,
                         const std::string& contentType, const HttpHeaders& headers) {
  std::string request = method + " " + url.path + " HTTP/1.1\r\n";
  // Deliberate: the port is never part of the Host line, whatever it is. Servers reached through forwarded ports see
  // the name alone, on every port; one that tells its sites apart by port needs AddHeader.
  AppendLine(request, "Host", url.host);
  AppendLine(request, "Connection", "close");
  if (!body.empty()) {
    AppendLine(request, "Content-Type", contentType);
    AppendLine(request, "Content-Length", std::to_string(static_cast<std::uint32_t>(body.size())));
  }
  for (const auto& [name, value] : headers) {
    AppendLine(request, name, value);
  }
  request += "\r\n";
  request += body;
  return request;
}

void ParseStatusLine(utils::StringView head, HttpResponse& response) {
  const std::string_view bytes(head.Data(), head.Size());
  const std::string_view line = bytes.substr(0, bytes.find('\n'));
  const std::vector<std::string> fields = utils::Split(utils::Trim({line.data(), line.size()}), " ");
  if (fields.size() >= 2) {
    response.status = ParseStatus(fields[1]);
  }
  if (fields.size() >= 3) {
    response.reason = fields[2];
  }
  for (std::size_t i = 3; i < fields.size(); ++i) {
    response.reason += " " + fields[i];
  }
}

void ParseHeaderLines(utils::StringView lines, HttpHeaders& headers) {
  const std::string_view bytes(lines.Data(), lines.Size());
  std::size_t begin = 0;
  for (std::size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n', begin)) {
    const utils::StringView line = utils::Trim({bytes.data() + begin, end - begin});
    if (line.Empty()) {
      return;
    }
    std::pair<std::string, std::string> header = utils::SplitKeyValue(line, ":");
    if (!header.first.empty()) {
      headers.push_back(std::move(header));
    }
    begin = end + 1;
  }
}

bool ResponseReader::Feed(const char* data, std::size_t size) {
  if (mHeadComplete) {
    return Deliver(data, size);
  }
  // The empty line may have begun in bytes that came before; all before those has been searched.
  const std::size_t overlap = std::min(mHead.size(), kHeadEnd.size() - 1);
  const std::size_t searchFrom = mHead.size() - overlap;
  mHead.append(data, size);
  const std::size_t headEnd = mHead.find(kHeadEnd, searchFrom);
  return headEnd == std::string::npos || CompleteHead(headEnd);
}

bool ResponseReader::CompleteHead(std::size_t headEnd) {
  mHeadComplete = true;
  ParseStatusLine(mHead, mResponse);
  const char* rest = mHead.data() + headEnd + kHeadEnd.size();
  const std::size_t restSize = mHead.size() - headEnd - kHeadEnd.size();
  // Deliberate: header lines are taken from behind the empty line, as far as they came in the same read, and not from
  // the head itself. So ordinary servers yield no headers and cannot redirect a daemon; only a peer that repeats them
  // behind the head can.
  ParseHeaderLines({rest, restSize}, mResponse.headers);
  // Called even without a byte, so that a streaming caller learns that the head is complete.
  return Deliver(rest, restSize);
}

bool ResponseReader::Deliver(const char* data, std::size_t size) {
  if (mCallback) {
    return mCallback(data, static_cast<unsigned int>(size));
  }
  mResponse.body.append(data, size);
  return true;
}

}  // namespace kiv::net
