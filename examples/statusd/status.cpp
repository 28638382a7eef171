#include "status.h"

#include <unistd.h>

#include <cstdio>

#include "common/json.h"

namespace {

std::string JsonPeer(const PeerStatus& peer) {
  return "{\"url\":" + (peer.url.empty() ? "null" : JsonString(peer.url)) + ",\"state\":" + JsonString(peer.state) +
         ",\"http_status\":" + (peer.httpStatus == 0 ? "null" : std::to_string(peer.httpStatus)) +
         ",\"response_ms\":" + JsonMs(peer.responseMs) + ",\"fetches\":" + std::to_string(peer.fetches) +
         ",\"skipped\":" + std::to_string(peer.skipped) + ",\"history\":" + JsonList(peer.history, JsonMs) + "}";
}

std::string JsonProcess(const ProcessStatus& process) {
  return "{\"name\":" + JsonString(process.name) + ",\"count\":" + std::to_string(process.count) +
         ",\"pids\":" + JsonList(process.pids, [](int pid) { return std::to_string(pid); }) +
         ",\"command\":" + (process.command.empty() ? "null" : JsonString(process.command)) +
         ",\"starts\":" + std::to_string(process.starts) + "}";
}

std::string JsonCommand(const CommandStatus& command) {
  if (command.line.empty()) {
    return "null";
  }
  const std::string json =
      "{\"line\":" + JsonString(command.line) + ",\"runs\":" + std::to_string(command.runs) + ",\"exit_code\":";
  if (!command.last) {
    return json + "null,\"took_ms\":null,\"output\":null,\"truncated\":false}";
  }
  return json + std::to_string(command.last->exitCode) + ",\"took_ms\":" + JsonMs(command.last->tookMs) +
         ",\"output\":" + JsonString(command.last->output) +
         ",\"truncated\":" + (command.last->truncated ? "true" : "false") + "}";
}

std::string JsonShare(const ShareStatus& share) {
  if (share.name.empty()) {
    return "null";
  }
  return "{\"name\":" + JsonString(share.name) + ",\"published\":" + std::to_string(share.published) +
         ",\"skipped\":" + std::to_string(share.skipped) + "}";
}

std::string JsonSettings(const Status& status) {
  if (!status.settingsCrc32) {
    return "null";
  }
  char crc32[9];
  std::snprintf(crc32, sizeof crc32, "%08x", *status.settingsCrc32);
  return "{\"file\":" + JsonString(status.settingsFile) + ",\"crc32\":\"" + crc32 + "\"}";
}

std::string JsonWatchdog(const WatchdogStatus& watchdog) {
  if (watchdog.device.empty()) {
    return "null";
  }
  return "{\"device\":" + JsonString(watchdog.device) + ",\"pings\":" + std::to_string(watchdog.pings) +
         ",\"refused\":" + std::to_string(watchdog.refused) + ",\"withheld\":" + std::to_string(watchdog.withheld) +
         "}";
}

}  // namespace

long long UptimeSeconds(const Status& status) {
  const auto age = std::chrono::steady_clock::now() - status.started;
  return std::chrono::duration_cast<std::chrono::seconds>(age).count();
}

std::string ToJson(const Status& status) {
  return "{\"name\":" + JsonString(status.name) + ",\"pid\":" + std::to_string(::getpid()) +
         ",\"uptime_s\":" + std::to_string(UptimeSeconds(status)) +
         ",\"loop_passes\":" + std::to_string(status.loopPasses) +
         ",\"timers_fired\":" + std::to_string(status.timersFired) +
         ",\"requests\":" + std::to_string(status.requests) + ",\"clients\":" + std::to_string(status.clients) +
         ",\"peer\":" + JsonPeer(status.peer) +
         ",\"network\":{\"snapshots\":" + std::to_string(status.network.snapshots) +
         ",\"took_ms\":" + JsonMs(status.network.tookMs) + "}," + status.network.tables +
         ",\"processes\":" + JsonList(status.processes, JsonProcess) + ",\"command\":" + JsonCommand(status.command) +
         ",\"share\":" + JsonShare(status.share) + "," + status.figures + ",\"settings\":" + JsonSettings(status) +
         ",\"watchdog\":" + JsonWatchdog(status.watchdog) + "}\n";
}

std::string ToLine(const Status& status) {
  const PeerStatus& peer = status.peer;
  std::string line = status.name + ": up " + std::to_string(UptimeSeconds(status)) + " s, " +
                     std::to_string(status.loopPasses) + " passes, " + std::to_string(status.requests) +
                     " requests, peer " + peer.state;
  if (peer.httpStatus != 0) {
    line += " (HTTP " + std::to_string(peer.httpStatus) + ")";
  }
  if (peer.responseMs) {
    line += " in " + JsonMs(peer.responseMs) + " ms";
  }
  return line;
}
