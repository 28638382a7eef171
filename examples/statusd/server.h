#ifndef STATUSD_SERVER_H
#define STATUSD_SERVER_H

#include <kiv/net.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>

#include "pass_counter.h"

/// Accepts connections on the loop, reads one request from each, answers it and closes.
///
/// Every connection ends by its deadline whatever the client does, so that silent, slow and half-closed ones cost a
/// descriptor for that long and nothing more.
class Server {
 public:
  /// Gives the answer to what a client sent so far, or nothing while the request is incomplete.
  using Answer = std::function<std::string(const std::string& input)>;

  Server(kiv::net::EventLoop& loop, PassCounter& passes, Answer answer);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();

  /// Starts to listen; port 0 takes a free one. Returns false with errno when that fails.
  bool Listen(const std::string& ip, unsigned short port);

  /// Returns the address of the page.
  std::string Url() const;

  /// Sets how many connections there may be, and how long each may last.
  void SetLimits(std::size_t maxClients, kiv::net::Milliseconds deadline);

  /// Closes what is past its deadline, and accepts again if that had to stop. To be called a few times a second.
  void Sweep();

  std::size_t ClientCount() const { return mClients.size(); }

 private:
  class Listener;
  class Connection;
  struct Client {
    int fd;
    std::chrono::steady_clock::time_point since;
  };

  void Accept();
  void PauseAccepting(bool paused);
  void Open(int fd);
  void Close(int fd);

  kiv::net::EventLoop& mLoop;
  PassCounter& mPasses;
  Answer mAnswer;
  std::deque<Client> mClients;  // The oldest is in front.
  std::size_t mMaxClients = 64;
  kiv::net::Milliseconds mDeadline{10000};
  int mListenFd = -1;
  bool mPaused = false;
};

#endif  // STATUSD_SERVER_H
