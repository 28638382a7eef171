#ifndef KIV_TESTS_UNIT_NET_SCRIPTED_SERVER_H
#define KIV_TESTS_UNIT_NET_SCRIPTED_SERVER_H

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"

namespace kiv::test {

/// Sends all of `bytes`, as far as the peer takes them within the socket's time-out.
inline void SendAll(int fd, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t size = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (size <= 0) {
      return;
    }
    sent += static_cast<std::size_t>(size);
  }
}

/// Receives until the peer closes, an error or the socket's time-out, and returns what came.
inline std::string ReceiveAll(int fd) {
  std::string bytes;
  char chunk[65536];
  for (ssize_t size = ::recv(fd, chunk, sizeof chunk, 0); size > 0; size = ::recv(fd, chunk, sizeof chunk, 0)) {
    bytes.append(chunk, static_cast<std::size_t>(size));
  }
  return bytes;
}

/// Tells whether the peer of `fd` has neither closed nor sent anything.
inline bool IsQuiet(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, 0) == 0;
}

/// What the server does with a connection once it has read the request; plays on the server's thread. What it leaves
/// open stays open until the server ends.
using Script = std::function<void(internal::UniqueFd&)>;

/// Answers and ends the sending side, as a server that closes does.
inline Script Answer(std::string bytes) {
  return [bytes = std::move(bytes)](internal::UniqueFd& connection) {
    SendAll(connection.Get(), bytes);
    (void)::shutdown(connection.Get(), SHUT_WR);
  };
}

/// Answers, and then neither sends nor closes.
inline Script AnswerAndHold(std::string bytes) {
  return [bytes = std::move(bytes)](internal::UniqueFd& connection) { SendAll(connection.Get(), bytes); };
}

/// Answers, waits until all of it has reached the client's socket, and resets the connection.
inline Script AnswerAndReset(std::string bytes) {
  return [bytes = std::move(bytes)](internal::UniqueFd& connection) {
    SendAll(connection.Get(), bytes);
    int unacknowledged = 1;
    for (int i = 0; i < 100000 && unacknowledged > 0; ++i) {
      (void)::ioctl(connection.Get(), SIOCOUTQ, &unacknowledged);
      std::this_thread::yield();
    }
    const linger reset{1, 0};
    (void)::setsockopt(connection.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    connection.Reset();
  };
}

/// One connection as the server saw it.
struct Visit {
  std::string request;        ///< All bytes that the client sent.
  std::size_t openEarlier{};  ///< How many earlier connections the client still had open when this one was answered.
};

/// A server on a free port of the loopback interface. It plays the n-th script on the n-th connection, one connection
/// after the other, and accepts no more once all are played. Nothing it waits for takes longer than ten seconds.
class ScriptedServer {
 public:
  explicit ScriptedServer(std::vector<Script> scripts, const std::string& ip = "127.0.0.1", unsigned short port = 0)
      : mScripts(std::move(scripts)), mStop(::eventfd(0, EFD_CLOEXEC)) {
    mListener.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    (void)::inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
    const int on = 1;
    (void)::setsockopt(mListener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    mListening = ::bind(mListener.Get(), generic, sizeof address) == 0 && ::listen(mListener.Get(), 64) == 0;
    socklen_t size = sizeof address;
    (void)::getsockname(mListener.Get(), generic, &size);
    mBase = "http://" + ip + ":" + std::to_string(ntohs(address.sin_port));
    mThread = std::thread([this] { Serve(); });
  }
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;
  ~ScriptedServer() { (void)Finish(); }

  bool IsListening() const { return mListening; }

  /// Makes the URL of `path`, which begins with "/".
  std::string Url(const std::string& path) const { return mBase + path; }

  /// Serves the connections made so far, closes everything and returns what came. Call it when the client is done.
  const std::vector<Visit>& Finish() {
    if (mThread.joinable()) {
      const std::uint64_t one = 1;
      (void)!::write(mStop.Get(), &one, sizeof one);
      mThread.join();
      mStop.Reset();
    }
    return mVisits;
  }

 private:
  void Serve() {
    std::vector<internal::UniqueFd> connections;
    for (const Script& script : mScripts) {
      if (!WaitForClient()) {
        break;
      }
      connections.emplace_back(::accept4(mListener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      BoundWaits(connections.back().Get());
      Visit visit;
      visit.request = ReadRequest(connections.back().Get());
      for (std::size_t i = 0; i + 1 < connections.size(); ++i) {
        visit.openEarlier += connections[i].IsValid() && IsQuiet(connections[i].Get()) ? 1 : 0;
      }
      mVisits.push_back(visit);
      script(connections.back());
    }
    mListener.Reset();
    for (std::size_t i = 0; i < connections.size(); ++i) {
      mVisits[i].request += ReceiveAll(connections[i].Get());
    }
  }

  // A connection made before Finish was called is served before the thread ends.
  bool WaitForClient() const {
    pollfd entries[2] = {{mListener.Get(), POLLIN, 0}, {mStop.Get(), POLLIN, 0}};
    return ::poll(entries, 2, 10000) > 0 && (entries[0].revents & POLLIN) != 0;
  }

  static void BoundWaits(int fd) {
    const timeval limit{10, 0};
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  }

  // Reads up to the end of the head, and of the body whose length the head gives.
  static std::string ReadRequest(int fd) {
    std::string request;
    std::size_t wanted = 0;
    char chunk[65536];
    while (wanted == 0 || request.size() < wanted) {
      const ssize_t size = ::recv(fd, chunk, sizeof chunk, 0);
      if (size <= 0) {
        break;
      }
      request.append(chunk, static_cast<std::size_t>(size));
      const std::size_t headEnd = request.find("\r\n\r\n");
      const std::size_t length = request.find("Content-Length: ");
      if (headEnd != std::string::npos) {
        wanted = headEnd + 4 + (length < headEnd ? std::strtoul(request.c_str() + length + 16, nullptr, 10) : 0);
      }
    }
    return request;
  }

  std::vector<Script> mScripts;
  internal::UniqueFd mStop;
  internal::UniqueFd mListener;
  bool mListening = false;
  std::string mBase;
  std::vector<Visit> mVisits;
  std::thread mThread;
};

}  // namespace kiv::test

#endif  // KIV_TESTS_UNIT_NET_SCRIPTED_SERVER_H
