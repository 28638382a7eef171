#include <kiv/net.h>
#include <netdb.h>

#include <cstdlib>
#include <string_view>
#include <utility>

#include "internal/address_list.h"
#include "internal/unique_fd.h"
#include "net/http_message.h"

namespace kiv::net {
namespace {

constexpr int kDefaultTimeoutMs = 5000;
constexpr unsigned short kDefaultPort = 80;
constexpr int kRedirectsPerHop = 5;
constexpr std::string_view kScheme = "http://";

bool StartsWith(const std::string& text, std::string_view prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

HttpClient::ParsedUrl UnparsedUrl() {
  HttpClient::ParsedUrl url;
  url.port = kDefaultPort;
  return url;
}

// Whole seconds, rounded up, written so that no time-out overflows.
unsigned int RoundUpToSeconds(int ms) { return static_cast<unsigned int>(ms / 1000 + (ms % 1000 != 0 ? 1 : 0)); }

// The send time-out bounds a blocking connect as well.
bool SetUpSocket(int fd, unsigned int seconds) {
  return SetSendTimeout(fd, seconds) && SetRecvTimeout(fd, seconds) && SetNonBlocking(fd, false);
}

// Cuts a valid port off `host` and stores it; otherwise changes nothing.
void TakePort(std::string& host, unsigned short& port) {
  const std::size_t colon = host.rfind(':');
  if (colon == std::string::npos || host.back() == ']') {
    return;
  }
  const std::string digits = host.substr(colon + 1);
  char* end = nullptr;
  const unsigned long value = std::strtoul(digits.c_str(), &end, 10);
  const bool whole = end != digits.c_str() && end == digits.c_str() + digits.size();
  if (whole && value >= 1 && value <= 65535) {
    port = static_cast<unsigned short>(value);
    host.resize(colon);
  }
}

// Deliberate: a prefix match with this case only, so that "Locations" counts and "location" does not.
const std::string* FindLocation(const HttpHeaders& headers) {
  for (const auto& [name, value] : headers) {
    if (StartsWith(name, "Location")) {
      return &value;
    }
  }
  return nullptr;
}

}  // namespace

HttpClient::HttpClient() : mTimeout(kDefaultTimeoutMs) {}

bool HttpClient::SetTimeout(int ms) {
  mTimeout = ms >= 1 ? ms : kDefaultTimeoutMs;
  return ms >= 1;
}

void HttpClient::AddHeader(const std::string& name, const std::string& value) { mHeaders.emplace_back(name, value); }

void HttpClient::ClearHeaders() { mHeaders.clear(); }

bool HttpClient::ParseUrl(const std::string& url, ParsedUrl& out) {
  if (!StartsWith(url, kScheme)) {
    return false;
  }
  const std::size_t slash = url.find('/', kScheme.size());
  std::string host = url.substr(kScheme.size(), slash == std::string::npos ? slash : slash - kScheme.size());
  std::string path = slash == std::string::npos ? "/" : url.substr(slash);
  TakePort(host, out.port);
  out.host = std::move(host);
  out.path = std::move(path);
  return !out.host.empty();
}

int HttpClient::Connect(const ParsedUrl& url) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  const internal::AddressList list(url.host, url.port, hints);
  const unsigned int seconds = RoundUpToSeconds(mTimeout);
  int result = -1;
  for (const addrinfo* entry = list.First(); entry != nullptr; entry = entry->ai_next) {
    internal::UniqueFd fd(::socket(entry->ai_family, entry->ai_socktype, entry->ai_protocol));
    result = -1;
    if (!fd.IsValid()) {
      continue;
    }
    if (!SetUpSocket(fd.Get(), seconds)) {
      // Deliberate: the number of the descriptor that is closed here is the result when no other address follows, so
      // a request on it counts as one that got no answer and not as one that could not connect.
      result = fd.Get();
      continue;
    }
    if (::connect(fd.Get(), entry->ai_addr, entry->ai_addrlen) == 0) {
      return fd.Release();
    }
  }
  return result;
}

void HttpClient::SendRequest(int fd, const std::string& method, const ParsedUrl& url, const std::string& body,
                             const std::string& contentType) {
  const std::string request = BuildRequest(method, url, body, contentType, mHeaders);
  // Deliberate: one send, whose result is ignored. A request that did not go out whole shows as a missing answer.
  (void)::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
}

bool HttpClient::ReadResponse(int fd, HttpResponse& resp, BodyCallback callback) {
  ResponseReader reader(resp, callback);
  char chunk[4096];
  for (;;) {
    const ssize_t size = ::recv(fd, chunk, sizeof chunk, 0);
    if (size <= 0) {
      // Deliberate: an error, EINTR and the time-out end the answer as the server's close does; what came stands.
      return true;
    }
    if (!reader.Feed(chunk, static_cast<std::size_t>(size))) {
      return false;
    }
  }
}

bool HttpClient::HandleRedirect(HttpResponse& resp, const std::string& url, int redirectsLeft, BodyCallback callback) {
  if (redirectsLeft < 1) {
    return true;
  }
  if (resp.status != 301 && resp.status != 302 && resp.status != 307) {
    return true;
  }
  return FollowRedirect(resp, url, std::move(callback));
}

bool HttpClient::FollowRedirect(HttpResponse& resp, const std::string& url, BodyCallback callback) {
  const std::string* location = FindLocation(resp.headers);
  if (location == nullptr || location->empty()) {
    return true;
  }
  std::string target = *location;
  if (target.front() == '/') {
    ParsedUrl origin = UnparsedUrl();
    if (!ParseUrl(url, origin)) {
      return true;
    }
    const std::string port = origin.port == kDefaultPort ? "" : ":" + std::to_string(origin.port);
    target = std::string(kScheme) + origin.host + port + target;
  }
  // Deliberate: the next hop starts with a full count of redirects, so a chain has no limit of its own.
  HttpClient next(*this);
  if (callback) {
    return next.Get(target, std::move(callback));
  }
  resp = next.Get(target);
  return resp.status != 0;
}

HttpResponse HttpClient::Get(const std::string& url) {
  HttpResponse response;
  if (!Exchange(url, "GET", "", "", nullptr, response)) {
    return {};
  }
  return response;
}

bool HttpClient::Get(const std::string& url, BodyCallback callback) {
  HttpResponse response;
  return Exchange(url, "GET", "", "", callback, response);
}

HttpResponse HttpClient::Post(const std::string& url, const std::string& body, const std::string& contentType) {
  HttpResponse response;
  if (!Exchange(url, "POST", body, contentType, nullptr, response)) {
    return {};
  }
  return response;
}

bool HttpClient::Post(const std::string& url, const std::string& body, BodyCallback callback,
                      const std::string& contentType) {
  HttpResponse response;
  return Exchange(url, "POST", body, contentType, callback, response);
}

bool HttpClient::Exchange(const std::string& url, const std::string& method, const std::string& body,
                          const std::string& contentType, const BodyCallback& callback, HttpResponse& response) {
  ParsedUrl parsed = UnparsedUrl();
  if (!ParseUrl(url, parsed)) {
    return false;
  }
  // Closed when this function returns: each hop of a redirect chain keeps its connection until those after it are done.
  const internal::UniqueFd fd(Connect(parsed));
  if (!fd.IsValid()) {
    return false;
  }
  SendRequest(fd.Get(), method, parsed, body, contentType);
  if (!ReadResponse(fd.Get(), response, callback)) {
    return false;
  }
  return HandleRedirect(response, url, kRedirectsPerHop, callback);
}

}  // namespace kiv::net
