#include "server.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

namespace {

constexpr int kBacklog = 64;
// What does not fit waits in the daemon: a client that does not read holds little of the kernel's memory.
constexpr int kSendBuffer = 4096;

bool TryLater() { return errno == EAGAIN || errno == EINTR; }

}  // namespace

class Server::Listener : public kiv::net::EventHandler {
 public:
  Listener(Server& server, int fd) : mServer(server), mFd(fd) {}
  ~Listener() override { ::close(mFd); }

  void OnEvent(int /*fd*/, short /*revents*/) override {
    mServer.mPasses.Note();
    mServer.Accept();
  }
  int GetFd() override { return mFd; }
  short GetEvents() override { return mServer.mPaused ? 0 : POLLIN; }

 private:
  Server& mServer;
  const int mFd;
};

/// Reads a request, writes the answer, then waits for the client to close: closing first, with bytes of the client
/// still unread, would reset the connection and could take the answer with it.
class Server::Connection : public kiv::net::EventHandler {
 public:
  Connection(Server& server, int fd) : mServer(server), mFd(fd) {}
  ~Connection() override { ::close(mFd); }

  void OnEvent(int /*fd*/, short /*revents*/) override {
    mServer.mPasses.Note();
    if (!(this->*mStep)()) {
      mServer.Close(mFd);  // This object is gone now.
    }
  }
  int GetFd() override { return mFd; }
  // While the answer goes out nothing else is asked for: the end of a half-closed client's input stays readable.
  short GetEvents() override { return mStep == &Connection::Write ? POLLOUT : POLLIN; }

 private:
  // A step returns false when the connection is over.
  bool Read();
  bool Write();
  bool Drain();

  void Continue(bool (Connection::*step)()) {
    mStep = step;
    mServer.mLoop.UpdateHandler(mFd);
  }

  Server& mServer;
  const int mFd;
  bool (Connection::*mStep)() = &Connection::Read;
  std::string mInput;
  std::string mOutput;
  std::size_t mSent = 0;
};

bool Server::Connection::Read() {
  char chunk[4096];
  const ssize_t size = ::recv(mFd, chunk, sizeof chunk, 0);
  if (size <= 0) {
    return size < 0 && TryLater();
  }
  mInput.append(chunk, static_cast<std::size_t>(size));
  mOutput = mServer.mAnswer(mInput);
  if (mOutput.empty()) {
    return true;
  }
  Continue(&Connection::Write);
  return Write();
}

bool Server::Connection::Write() {
  while (mSent < mOutput.size()) {
    const ssize_t size = ::send(mFd, mOutput.data() + mSent, mOutput.size() - mSent, MSG_NOSIGNAL);
    if (size < 0) {
      return TryLater();
    }
    mSent += static_cast<std::size_t>(size);
  }
  ::shutdown(mFd, SHUT_WR);
  Continue(&Connection::Drain);
  return true;
}

bool Server::Connection::Drain() {
  char chunk[4096];
  const ssize_t size = ::recv(mFd, chunk, sizeof chunk, 0);
  return size > 0 || (size < 0 && TryLater());
}

Server::Server(kiv::net::EventLoop& loop, PassCounter& passes, Answer answer)
    : mLoop(loop), mPasses(passes), mAnswer(std::move(answer)) {}

Server::~Server() {
  while (!mClients.empty()) {
    Close(mClients.front().fd);
  }
  mLoop.RemoveHandler(mListenFd);
}

// bind(2) and not kiv::net::BindInet: its "reuse" sets SO_REUSEPORT too, and then a second statusd would silently get
// half of the connections; without it, a restart fails for a minute after every connection.
bool Server::Listen(const std::string& ip, unsigned short port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return false;
  }
  auto listener = std::make_unique<Listener>(*this, fd);
  const int one = 1;
  (void)::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  // Connections inherit it.
  (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  sockaddr_in address;
  if (!kiv::net::SetAddress(address, ip, port) ||
      ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, kBacklog) != 0) {
    return false;
  }
  mListenFd = fd;
  mLoop.AddHandler(std::move(listener));
  return true;
}

std::string Server::Url() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  (void)::getsockname(mListenFd, reinterpret_cast<sockaddr*>(&address), &length);
  const auto [ip, port] = kiv::net::GetAddress(address);
  return "http://" + ip + ":" + std::to_string(port) + "/";
}

void Server::SetLimits(std::size_t maxClients, kiv::net::Milliseconds deadline) {
  mMaxClients = maxClients;
  mDeadline = deadline;
}

void Server::Sweep() {
  const auto now = std::chrono::steady_clock::now();
  while (!mClients.empty() && now - mClients.front().since >= mDeadline) {
    Close(mClients.front().fd);
  }
  PauseAccepting(false);
}

// Not more than a backlog at a time, so that a flood of connections leaves the other handlers their turn.
void Server::Accept() {
  for (int i = 0; i < kBacklog; ++i) {
    const int fd = ::accept4(mListenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      Open(fd);
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      // Most likely no descriptor is left. The connection stays in the backlog and the listener stays readable, so it
      // is left alone until the next sweep: the loop would do nothing else otherwise.
      PauseAccepting(true);
      return;
    }
  }
}

void Server::PauseAccepting(bool paused) {
  mPaused = paused;
  mLoop.UpdateHandler(mListenFd);
}

// The oldest goes when there is no room: a client that means well is done long before it is the oldest of so many.
void Server::Open(int fd) {
  while (mClients.size() >= mMaxClients) {
    Close(mClients.front().fd);
  }
  mClients.push_back({fd, std::chrono::steady_clock::now()});
  mLoop.AddHandler(std::make_unique<Connection>(*this, fd));
}

void Server::Close(int fd) {
  const auto isClient = [fd](const Client& client) { return client.fd == fd; };
  mClients.erase(std::find_if(mClients.begin(), mClients.end(), isClient));
  mLoop.RemoveHandler(fd);
}
