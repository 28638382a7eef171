#ifndef STATUSD_HTTP_H
#define STATUSD_HTTP_H

#include <string>

/// page.html. The marks "{{nonce}}" in it are to be replaced.
extern const char kPage[];

/// What a client wants.
struct Request {
  std::string path;  ///< Without the query.
  bool headOnly = false;
};

/// Reads the head of a request from what a client sent so far. Returns 0 while it is incomplete, 200 with `out` filled
/// when it is a GET or HEAD, or the HTTP status of what is wrong with it.
int ParseRequest(const std::string& input, Request& out);

/// Returns a whole answer. `policy` is its Content-Security-Policy.
std::string BuildReply(int status, const std::string& type, const std::string& body, const std::string& policy);

/// Returns the answer with the page for people.
std::string PageReply();

/// Returns the answer with the status for programs.
std::string JsonReply(const std::string& json);

/// Returns an answer that consists of its status only.
std::string ErrorReply(int status);

#endif  // STATUSD_HTTP_H
