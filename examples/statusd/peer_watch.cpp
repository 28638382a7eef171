#include "peer_watch.h"

#include <unistd.h>

#include <functional>
#include <string_view>

namespace {

constexpr std::size_t kMaxHead = 8192;
constexpr std::size_t kMaxBody = 256 * 1024;

using Clock = std::chrono::steady_clock;

// Tells whether a complete HTTP head of decent size arrives. It is only looked at here, in the socket's buffer:
// ReadResponse keeps a head of any size in memory, and would take in one that never ends.
bool HeadArrives(int fd) {
  char bytes[kMaxHead];
  std::size_t seen = 0;
  while (seen < sizeof bytes) {
    // Waits for one byte more than before, then takes what there is.
    const ssize_t more = ::recv(fd, bytes, seen + 1, MSG_PEEK | MSG_WAITALL);
    const ssize_t size = ::recv(fd, bytes, sizeof bytes, MSG_PEEK | MSG_DONTWAIT);
    if (more <= static_cast<ssize_t>(seen) || size < more) {
      return false;
    }
    seen = static_cast<std::size_t>(size);
    const std::string_view head(bytes, seen);
    const std::string_view start = head.substr(0, 5);
    if (start != std::string_view("HTTP/").substr(0, start.size())) {
      return false;
    }
    if (head.find("\r\n\r\n") != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace

PeerWatch::~PeerWatch() {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mQuit = true;
  }
  CutOff();
}

void PeerWatch::Watch(const std::string& url, kiv::net::Milliseconds timeout, kiv::net::Milliseconds slow) {
  const bool isNew = url != mTarget.url;
  mTarget = {url, timeout, slow};
  if (isNew) {
    mStatus = PeerStatus();
    mStatus.url = url;
    mStatus.state = url.empty() ? "none" : "waiting";
    CutOff();
  }
}

void PeerWatch::Fetch() {
  if (mTarget.url.empty()) {
    return;
  }
  const auto fetch = [this, job = mTarget]() -> std::function<void()> {
    return [this, result = Get(job)] { Record(result); };
  };
  if (!mWorker.Run(fetch)) {
    ++mStatus.skipped;
    return;
  }
  mStarted = Clock::now();
}

void PeerWatch::Sweep() {
  if (mWorker.IsBusy() && Clock::now() - mStarted >= mTarget.timeout) {
    CutOff();
  }
}

// HttpClient limits the wait for each piece of an answer, but not their number. Shutting the connection down under it
// ends the fetch at once, wherever it is.
void PeerWatch::CutOff() {
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mFd >= 0) {
    ::shutdown(mFd, SHUT_RDWR);
  }
}

void PeerWatch::Record(const Result& result) {
  if (result.url != mTarget.url) {
    return;  // The settings have changed meanwhile.
  }
  ++mStatus.fetches;
  mStatus.state = result.state;
  mStatus.httpStatus = result.httpStatus;
  mStatus.responseMs = result.responseMs;
  Append(mStatus.history, result.responseMs);
}

// Makes the connection known to CutOff, or no longer. Returns false when the daemon is ending.
bool PeerWatch::Publish(int fd) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mFd = fd;
  return !mQuit;
}

// The steps of HttpClient::Get one by one, for the sake of the descriptor and of the status, which the streaming Get
// does not tell. Redirects are not followed: their number has no limit.
PeerWatch::Result PeerWatch::Get(const Job& job) {
  const auto started = Clock::now();
  Result result{job.url, "down", 0, std::nullopt};
  kiv::net::HttpClient client;
  client.SetTimeout(static_cast<int>(job.timeout.count()));
  kiv::net::HttpClient::ParsedUrl url;
  client.ParseUrl(job.url, url);
  const int fd = client.Connect(url);
  if (fd < 0) {
    return result;
  }
  kiv::net::HttpResponse response;
  std::size_t size = 0;
  const auto take = [&size](const char*, unsigned int length) { return (size += length) <= kMaxBody; };
  bool sensible = false;
  if (Publish(fd)) {
    client.SendRequest(fd, "GET", url, "", "");
    sensible = HeadArrives(fd) && client.ReadResponse(fd, response, take);
  }
  (void)Publish(-1);
  ::close(fd);
  const std::chrono::duration<double, std::milli> took = Clock::now() - started;
  sensible = sensible && response.status >= 100 && response.status <= 599;
  result.httpStatus = sensible ? response.status : 0;
  if (took >= job.timeout && size <= kMaxBody) {
    result.state = "slow";
  } else if (!sensible) {
    result.state = "nonsense";
  } else {
    result.responseMs = took.count();
    result.state = response.status < 200 || response.status > 299 ? "error" : took > job.slow ? "slow" : "up";
  }
  return result;
}
