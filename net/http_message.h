#ifndef KIV_NET_HTTP_MESSAGE_H
#define KIV_NET_HTTP_MESSAGE_H

#include <kiv/net.h>
#include <kiv/utils.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// HTTP/1.1 messages as pure code on memory: what to send, and what received bytes mean.
namespace kiv::net {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

/// Returns the bytes of one whole request, head and body.
std::string BuildRequest(const std::string& method, const HttpClient::ParsedUrl& url, const std::string& body,
                         const std::string& contentType, const HttpHeaders& headers);

/// Reads status code and reason phrase from the first line of `head`; what is missing stays as it is.
void ParseStatusLine(utils::StringView head, HttpResponse& response);

/// Appends a pair to `headers` for every "name: value" line, up to an empty line or a last line without a line end.
void ParseHeaderLines(utils::StringView lines, HttpHeaders& headers);

/// Takes the bytes of an answer as they arrive, in pieces of any size, and fills a response.
class ResponseReader {
 public:
  /// Both must outlive the reader. With an empty `callback` the body is collected in `response`.
  ResponseReader(HttpResponse& response, const HttpClient::BodyCallback& callback)
      : mResponse(response), mCallback(callback) {}

  /// Takes the next `size` bytes. Returns false when the callback refused them.
  bool Feed(const char* data, std::size_t size);

 private:
  bool CompleteHead(std::size_t headEnd);
  bool Deliver(const char* data, std::size_t size);

  HttpResponse& mResponse;
  const HttpClient::BodyCallback& mCallback;
  std::string mHead;
  bool mHeadComplete = false;
};

}  // namespace kiv::net

#endif  // KIV_NET_HTTP_MESSAGE_H
