#ifndef STATUSD_STATUS_H
#define STATUSD_STATUS_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "history.h"

/// What is known of the peer.
///
/// States: "none" (nothing to watch), "waiting" (no result yet), "up", "slow" (the answer took too long or was cut
/// off), "error" (an HTTP status other than 2xx), "nonsense" (not HTTP, or too much of it), "down" (no connection).
struct PeerStatus {
  std::string url;
  std::string state = "none";
  int httpStatus = 0;                ///< 0 when the last fetch brought none.
  std::optional<double> responseMs;  ///< Of the last fetch; empty when it failed.
  History history;                   ///< The last response times.
  unsigned long fetches = 0;
  unsigned long skipped = 0;  ///< Ticks that found the previous fetch still under way.
};

/// What is known of the network.
struct NetworkStatus {
  std::string tables;  ///< Members of /status.json, made once for all requests.
  unsigned long snapshots = 0;
  std::optional<double> tookMs;  ///< What the last snapshot took.
};

/// What is known of the processes of one name.
struct ProcessStatus {
  std::string name;
  std::string command;       ///< What starts a missing one; may be empty.
  std::size_t count = 0;     ///< How many there are.
  std::vector<int> pids;     ///< The first of them.
  unsigned long starts = 0;  ///< Tries; whether the program could be started is not known.
  std::optional<std::chrono::steady_clock::time_point> lastStart;
};

/// How a run of the command ended.
struct CommandRun {
  int exitCode;
  double tookMs;
  std::string output;  ///< Its beginning.
  bool truncated;      ///< Whether there was more of it.
};

/// What is known of the command.
struct CommandStatus {
  std::string line;        ///< Empty when there is none.
  unsigned long runs = 0;  ///< Those that have ended.
  std::optional<CommandRun> last;
};

/// What becomes of the figures in shared memory.
struct ShareStatus {
  std::string name;  ///< Empty when they are not published.
  unsigned long published = 0;
  unsigned long skipped = 0;  ///< Times that they could not be, mostly as a reader had the semaphore.
};

/// What becomes of the watchdog.
struct WatchdogStatus {
  std::string device;          ///< Empty when there is none.
  unsigned long pings = 0;     ///< Those that the device took.
  unsigned long refused = 0;   ///< Those that it did not take.
  unsigned long withheld = 0;  ///< Those that it did not get, as the loop hung.
};

/// Everything that the page shows. Belongs to the loop thread.
struct Status {
  std::string name;
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  unsigned long loopPasses = 0;
  unsigned long timersFired = 0;
  unsigned long requests = 0;
  std::size_t clients = 0;
  PeerStatus peer;
  NetworkStatus network;
  std::vector<ProcessStatus> processes;
  CommandStatus command;
  ShareStatus share;
  std::string figures;       ///< Members of /status.json about the machine, made once for all requests.
  std::string settingsFile;  ///< Empty when there is none.
  std::optional<unsigned int> settingsCrc32;  ///< Of the file as it was read last.
  WatchdogStatus watchdog;
};

/// Returns for how many seconds the daemon has been running.
long long UptimeSeconds(const Status& status);

/// Returns the body of /status.json, valid UTF-8 whatever the strings hold.
std::string ToJson(const Status& status);

/// Returns one line for a person.
std::string ToLine(const Status& status);

#endif  // STATUSD_STATUS_H
