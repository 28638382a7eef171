#include "daemon.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "http.h"

namespace {

constexpr kiv::net::Milliseconds kSweepInterval(250);
constexpr kiv::net::Milliseconds kNetworkInterval(1000);
constexpr kiv::net::Milliseconds kReportInterval(1000);

}  // namespace

void Complain(const std::string& message) {
  std::string line = "statusd: " + message;
  for (char& c : line) {
    c = static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
  }
  std::fprintf(stderr, "%s\n", line.c_str());
}

Daemon::Daemon(const CommandLine& commandLine, const Settings& settings)
    : mCommandLine(commandLine),
      mSettings(settings),
      mPasses(mLoop, mStatus.loopPasses),
      mServer(mLoop, mPasses, [this](const std::string& input) { return Answer(input); }),
      mPeer(mLoop, mStatus.peer),
      mNetwork(mLoop, mStatus.network) {}

bool Daemon::Start() {
  if (!mServer.Listen(mSettings.listenIp, mSettings.listenPort)) {
    Complain("cannot listen on " + mSettings.listenIp + ":" + std::to_string(mSettings.listenPort) + ": " +
             std::strerror(errno));
    return false;
  }
  mLoop.AddSignal(SIGTERM, [this](int) { Stop(); });
  mLoop.AddSignal(SIGINT, [this](int) { Stop(); });
  mLoop.AddSignal(SIGHUP, [this](int) { Reload(); });
  Every(kSweepInterval, &Daemon::Sweep);
  Every(kNetworkInterval, &Daemon::LookAtNetwork);
  if (mCommandLine.report) {
    Every(kReportInterval, &Daemon::Report);
  }
  Apply(mSettings);
  FetchPeer();
  LookAtNetwork();
  std::printf("listening on %s\n", mServer.Url().c_str());
  std::fflush(stdout);
  return true;
}

bool Daemon::Run() {
  mLoop.Run();
  if (!mStopped) {
    Complain(std::string("cannot wait for events: ") + std::strerror(errno));
  }
  return mStopped;
}

void Daemon::Stop() {
  mPasses.Note();
  mStopped = true;
  mLoop.Stop();
}

unsigned Daemon::Every(kiv::net::Milliseconds interval, void (Daemon::*step)()) {
  return mLoop.AddPeriodicTimer(interval, [this, step] {
    mPasses.Note();
    ++mStatus.timersFired;
    (this->*step)();
  });
}

void Daemon::Apply(const Settings& settings) {
  const bool newInterval = settings.intervalMs != mSettings.intervalMs || mFetchTimer == 0;
  mSettings = settings;
  mStatus.name = settings.name;
  mServer.SetLimits(static_cast<std::size_t>(settings.maxClients), kiv::net::Milliseconds(settings.clientDeadlineMs));
  mPeer.Watch(settings.peer, kiv::net::Milliseconds(settings.timeoutMs), kiv::net::Milliseconds(settings.slowMs));
  if (newInterval) {
    mLoop.RemoveTimer(mFetchTimer);
    mFetchTimer = Every(kiv::net::Milliseconds(settings.intervalMs), &Daemon::FetchPeer);
  }
}

void Daemon::Reload() {
  mPasses.Note();
  Settings settings;
  std::string error;
  if (!LoadSettings(mCommandLine, settings, error)) {
    Complain(error + "; the old settings stay");
    return;
  }
  if (settings.listenIp != mSettings.listenIp || settings.listenPort != mSettings.listenPort) {
    Complain("the new listen address takes effect at the next start");
    settings.listenIp = mSettings.listenIp;
    settings.listenPort = mSettings.listenPort;
  }
  Apply(settings);
}

void Daemon::Sweep() {
  mServer.Sweep();
  mPeer.Sweep();
}

void Daemon::Report() {
  mStatus.clients = mServer.ClientCount();
  std::printf("%s\n", ToLine(mStatus).c_str());
  std::fflush(stdout);
}

std::string Daemon::Answer(const std::string& input) {
  Request request;
  const int status = ParseRequest(input, request);
  if (status == 0) {
    return "";
  }
  ++mStatus.requests;
  mStatus.clients = mServer.ClientCount();
  std::string reply;
  if (status != 200) {
    reply = ErrorReply(status);
  } else if (request.path == "/") {
    reply = PageReply();
  } else if (request.path == "/status.json") {
    reply = JsonReply(ToJson(mStatus));
  } else {
    reply = ErrorReply(404);
  }
  if (request.headOnly) {
    reply.resize(reply.find("\r\n\r\n") + 4);
  }
  return reply;
}
