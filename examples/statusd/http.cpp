#include "http.h"

#include <kiv/utils.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {

constexpr std::size_t kMaxHead = 8192;
const char kNothingAllowed[] = "default-src 'none'; frame-ancestors 'none'";

const char* Reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 414:
      return "URI Too Long";
    case 431:
      return "Request Header Fields Too Large";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Bad Request";
  }
}

int ParseRequestLine(std::string line, Request& out, bool& hostNeeded) {
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  const auto isGraphic = [](unsigned char c) { return c > 0x20 && c < 0x7F; };
  const std::vector<std::string> words = kiv::utils::Split(line, " ");
  if (words.size() != 3 || words[0].empty() || words[1].empty() || words[1].front() != '/' ||
      !std::all_of(words[1].begin(), words[1].end(), isGraphic) || words[2].compare(0, 5, "HTTP/") != 0) {
    return 400;
  }
  if (words[2] != "HTTP/1.0" && words[2] != "HTTP/1.1") {
    return 505;
  }
  out.path = words[1].substr(0, words[1].find('?'));
  out.headOnly = words[0] == "HEAD";
  hostNeeded = words[2] == "HTTP/1.1";
  return words[0] == "GET" || out.headOnly ? 200 : 405;
}

// A page can be kept from running any script or style but its own only when each answer has a mark of its own.
std::string Nonce() {
  unsigned char random[16];
  (void)::getentropy(random, sizeof random);  // Fails for larger sizes only.
  std::string nonce;
  for (const unsigned char byte : random) {
    nonce += "0123456789abcdef"[byte >> 4];
    nonce += "0123456789abcdef"[byte & 15];
  }
  return nonce;
}

}  // namespace

int ParseRequest(const std::string& input, Request& out) {
  const std::size_t end = std::min(input.find("\r\n\r\n"), input.find("\n\n"));
  if (std::min(end, input.size()) > kMaxHead) {
    return input.find('\n') > kMaxHead ? 414 : 431;
  }
  if (end == std::string::npos) {
    return 0;
  }
  const std::vector<std::string> lines = kiv::utils::Split({input.data(), end}, "\n");
  bool hostNeeded = false;
  const int status = ParseRequestLine(lines.front(), out, hostNeeded);
  int hosts = 0;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const std::string name = kiv::utils::SplitKeyValue(lines[i], ":").first;
    if (name.empty()) {
      return 400;
    }
    hosts += ::strcasecmp(name.c_str(), "Host") == 0 ? 1 : 0;
  }
  return hosts > 1 || (hosts == 0 && hostNeeded) ? 400 : status;
}

std::string BuildReply(int status, const std::string& type, const std::string& body, const std::string& policy) {
  std::string reply = "HTTP/1.1 " + std::to_string(status) + " " + Reason(status) + "\r\n";
  reply += "Content-Type: " + type + "; charset=utf-8\r\n";
  reply += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  reply += "Content-Security-Policy: " + policy + "\r\n";
  reply += status == 405 ? "Allow: GET, HEAD\r\n" : "";
  reply += "X-Content-Type-Options: nosniff\r\nReferrer-Policy: no-referrer\r\n";
  reply += "Cache-Control: no-store\r\nConnection: close\r\n\r\n";
  return reply + body;
}

std::string PageReply() {
  const std::string mark = "{{nonce}}";
  const std::string nonce = Nonce();
  std::string page = kPage;
  for (std::size_t at = page.find(mark); at != std::string::npos; at = page.find(mark, at)) {
    page.replace(at, mark.size(), nonce);
  }
  return BuildReply(200, "text/html", page,
                    "default-src 'none'; connect-src 'self'; img-src data:; script-src 'nonce-" + nonce +
                        "'; style-src 'nonce-" + nonce +
                        "'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
}

std::string JsonReply(const std::string& json) { return BuildReply(200, "application/json", json, kNothingAllowed); }

std::string ErrorReply(int status) {
  const std::string body = std::to_string(status) + " " + Reason(status) + "\n";
  return BuildReply(status, "text/plain", body, kNothingAllowed);
}
