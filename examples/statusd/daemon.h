#ifndef STATUSD_DAEMON_H
#define STATUSD_DAEMON_H

#include <kiv/net.h>

#include <string>

#include "network_watch.h"
#include "pass_counter.h"
#include "peer_watch.h"
#include "server.h"
#include "settings.h"
#include "status.h"

/// Prints one line on stderr, whatever `message` holds.
void Complain(const std::string& message);

/// The whole of statusd: one loop, a server on it, a peer and the network to watch, and timers and signals that drive
/// them.
class Daemon {
 public:
  Daemon(const CommandLine& commandLine, const Settings& settings);

  /// Starts to listen. Returns false, after a complaint, when that fails.
  bool Start();

  /// Runs until SIGTERM or SIGINT. Returns false, after a complaint, when the loop could not go on.
  bool Run();

 private:
  unsigned Every(kiv::net::Milliseconds interval, void (Daemon::*step)());
  void Apply(const Settings& settings);
  void Reload();
  void Stop();
  void Sweep();
  void FetchPeer() { mPeer.Fetch(); }
  void LookAtNetwork() { mNetwork.Look(); }
  void Report();
  std::string Answer(const std::string& input);

  // In this order: everything below uses the loop, and is destroyed before it.
  kiv::net::EventLoop mLoop;
  const CommandLine mCommandLine;
  Settings mSettings;
  Status mStatus;
  PassCounter mPasses;
  Server mServer;
  PeerWatch mPeer;
  NetworkWatch mNetwork;
  unsigned mFetchTimer = 0;
  bool mStopped = false;
};

#endif  // STATUSD_DAEMON_H
