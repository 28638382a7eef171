#ifndef STATUSD_DAEMON_H
#define STATUSD_DAEMON_H

#include <kiv/net.h>
#include <kiv/process.h>

#include <optional>
#include <string>

#include "command_watch.h"
#include "machine_watch.h"
#include "network_watch.h"
#include "pass_counter.h"
#include "peer_watch.h"
#include "process_watch.h"
#include "publication.h"
#include "server.h"
#include "settings.h"
#include "status.h"
#include "watchdog_feed.h"

/// Prints one line on stderr, whatever `message` holds.
void Complain(const std::string& message);

/// The whole of statusd: one loop, a server on it, what it watches, and timers and signals that drive them.
class Daemon {
 public:
  Daemon(const CommandLine& commandLine, const Settings& settings);

  /// Locks the pid file, begins to listen, opens the watchdog, drops the privileges of root and starts everything else,
  /// in this order.
  /// Returns false, after a complaint, when a step fails.
  bool Start();

  /// Runs until SIGTERM, SIGINT or SIGQUIT. Returns false, after a complaint, when the loop could not go on.
  bool Run();

 private:
  bool LockPidFile();
  bool Listen();
  bool OpenWatchdog();
  bool DropPrivileges();
  bool StartThreads();
  bool OpenShare(const std::string& name);
  void StartSignals();
  void StartTimers();

  unsigned Every(kiv::net::Milliseconds interval, void (Daemon::*step)());
  void SetInterval(unsigned& timer, long Settings::*interval, const Settings& settings, void (Daemon::*step)());
  void Apply(const Settings& settings);
  bool KeepsWatchdog(const Settings& settings) const;
  void Reload();
  void Stop();
  void Tick();
  void FetchPeer() { mPeer.Fetch(); }
  void RunCommand() { mCommand.Run(); }
  void Publish();
  void Report();
  std::string Answer(const std::string& input);

  // In this order: the pid file goes last, and everything below the loop uses it and is destroyed before it.
  std::optional<kiv::process::PidFile> mPidFile;
  kiv::net::EventLoop mLoop;
  const CommandLine mCommandLine;
  Settings mSettings;
  Status mStatus;
  PassCounter mPasses;
  Server mServer;
  PeerWatch mPeer;
  NetworkWatch mNetwork;
  ProcessWatch mProcesses;
  CommandWatch mCommand;
  MachineWatch mMachine;
  Publication mPublication;
  WatchdogFeed mWatchdog;  // Behind all that may take its time to end: it is disarmed before.
  unsigned mTicks = 0;
  unsigned mFetchTimer = 0;
  unsigned mCommandTimer = 0;
  bool mStopped = false;
};

#endif  // STATUSD_DAEMON_H
