#include "daemon.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "common/printable.h"
#include "http.h"

namespace {

constexpr kiv::net::Milliseconds kTickInterval(250);
constexpr kiv::net::Milliseconds kReportInterval(1000);

}  // namespace

void Complain(const std::string& message) { std::fprintf(stderr, "statusd: %s\n", Printable(message).c_str()); }

Daemon::Daemon(const CommandLine& commandLine, const Settings& settings)
    : mCommandLine(commandLine),
      mSettings(settings),
      mPasses(mLoop, mStatus.loopPasses),
      mServer(mLoop, mPasses, [this](const std::string& input) { return Answer(input); }),
      mPeer(mLoop, mStatus.peer),
      mNetwork(mLoop, mStatus.network),
      mProcesses(mLoop, mStatus.processes),
      mCommand(mLoop, mStatus.command),
      mMachine(mLoop, mStatus.figures),
      mPublication(mStatus.share),
      mWatchdog(mStatus.watchdog) {}

// The pid file, a port below 1024 and the watchdog may need root. Threads come after the rights of root have been
// dropped, so that no line of theirs ever has them; so do the objects in shared memory, which then belong to the user
// that removes them.
bool Daemon::Start() {
  if (!LockPidFile() || !Listen() || !OpenWatchdog() || !DropPrivileges() || !StartThreads() ||
      !OpenShare(mSettings.share)) {
    return false;
  }
  StartSignals();
  StartTimers();
  Apply(mSettings);
  FetchPeer();
  Publish();
  std::printf("listening on %s\n", mServer.Url().c_str());
  std::fflush(stdout);
  return true;
}

bool Daemon::LockPidFile() {
  if (!mCommandLine.pidFile) {
    return true;
  }
  mPidFile.emplace(*mCommandLine.pidFile);
  errno = 0;
  if (mPidFile->Lock()) {
    return true;
  }
  // No call has failed, or only the one that asks for the lock, or that asks whether another user's process lives.
  const bool isHeld = errno == 0 || errno == EWOULDBLOCK || errno == EPERM;
  Complain("cannot lock the pid file " + Quote(*mCommandLine.pidFile) + ": " +
           (isHeld ? "it belongs to a process that is running" : std::strerror(errno)));
  return false;
}

bool Daemon::Listen() {
  if (mServer.Listen(mSettings.listenIp, mSettings.listenPort)) {
    return true;
  }
  Complain("cannot listen on " + mSettings.listenIp + ":" + std::to_string(mSettings.listenPort) + ": " +
           std::strerror(errno));
  return false;
}

bool Daemon::OpenWatchdog() {
  const std::chrono::seconds timeout(mSettings.watchdogTimeoutS);
  if (mWatchdog.Open(mSettings.watchdog, timeout, kiv::net::Milliseconds(mSettings.watchdogHangMs))) {
    return true;
  }
  Complain("cannot open the watchdog " + Quote(mSettings.watchdog) + ": " + std::strerror(errno));
  return false;
}

bool Daemon::DropPrivileges() {
  const std::optional<User>& user = mCommandLine.user;
  if (!user || kiv::process::DropRootPrivileges(user->uid, user->gid)) {
    return true;
  }
  Complain("cannot become user " + std::to_string(user->uid) + " and group " + std::to_string(user->gid) + ": " +
           std::strerror(errno));
  return false;
}

bool Daemon::StartThreads() {
  if (mPeer.Start() && mNetwork.Start() && mProcesses.Start() && mMachine.Start() && mWatchdog.Start()) {
    return true;
  }
  Complain(std::string("cannot start a thread: ") + std::strerror(errno));
  return false;
}

bool Daemon::OpenShare(const std::string& name) {
  if (mPublication.Open(name)) {
    return true;
  }
  Complain("cannot publish at " + name + ": " + std::strerror(errno));
  return false;
}

void Daemon::StartSignals() {
  for (const int signo : {SIGTERM, SIGINT, SIGQUIT}) {
    mLoop.AddSignal(signo, [this](int) { Stop(); });
  }
  mLoop.AddSignal(SIGHUP, [this](int) { Reload(); });
}

void Daemon::StartTimers() {
  Every(kTickInterval, &Daemon::Tick);
  if (mCommandLine.report) {
    Every(kReportInterval, &Daemon::Report);
  }
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

void Daemon::SetInterval(unsigned& timer, long Settings::*interval, const Settings& settings, void (Daemon::*step)()) {
  if (timer != 0 && settings.*interval == mSettings.*interval) {
    return;
  }
  mLoop.RemoveTimer(timer);
  timer = Every(kiv::net::Milliseconds(settings.*interval), step);
}

void Daemon::Apply(const Settings& settings) {
  SetInterval(mFetchTimer, &Settings::intervalMs, settings, &Daemon::FetchPeer);
  SetInterval(mCommandTimer, &Settings::commandIntervalMs, settings, &Daemon::RunCommand);
  mSettings = settings;
  mStatus.name = settings.name;
  mStatus.settingsFile = mCommandLine.configFile.value_or("");
  mStatus.settingsCrc32 = settings.fileCrc32;
  mServer.SetLimits(static_cast<std::size_t>(settings.maxClients), kiv::net::Milliseconds(settings.clientDeadlineMs));
  mPeer.Watch(settings.peer, kiv::net::Milliseconds(settings.timeoutMs), kiv::net::Milliseconds(settings.slowMs));
  mProcesses.Watch(settings.watched, kiv::net::Milliseconds(settings.restartDelayMs));
  mCommand.Watch(settings.command);
}

bool Daemon::KeepsWatchdog(const Settings& settings) const {
  return settings.watchdog == mSettings.watchdog && settings.watchdogTimeoutS == mSettings.watchdogTimeoutS &&
         settings.watchdogHangMs == mSettings.watchdogHangMs;
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
  if (!KeepsWatchdog(settings)) {
    Complain("the new watchdog settings take effect at the next start");
    settings.watchdog = mSettings.watchdog;
    settings.watchdogTimeoutS = mSettings.watchdogTimeoutS;
    settings.watchdogHangMs = mSettings.watchdogHangMs;
  }
  if (settings.share != mSettings.share) {
    (void)OpenShare(settings.share);  // It says so itself when that fails, and tries again now and then.
  }
  Apply(settings);
  Publish();
}

// What is done once a second is spread over four ticks, so that a small processor is never busy for long. The fourth is
// left to the timers with an interval of their own, which is mostly one of whole seconds.
void Daemon::Tick() {
  mWatchdog.Beat();
  mServer.Sweep();
  mPeer.Sweep();
  switch (++mTicks % 4) {
    case 1:
      mNetwork.Look();
      break;
    case 2:
      mProcesses.Look();
      break;
    case 3:
      mMachine.Look();
      Publish();
      break;
    default:
      break;
  }
}

void Daemon::Publish() {
  mStatus.clients = mServer.ClientCount();
  mPublication.Publish(mStatus, mServer.Url());
}

void Daemon::Report() {
  mStatus.clients = mServer.ClientCount();
  std::printf("%s\n", Printable(ToLine(mStatus)).c_str());
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
