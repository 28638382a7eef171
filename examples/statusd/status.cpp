#include "status.h"

#include <cstdio>

#include "common/json.h"

namespace {

long long UptimeSeconds(const Status& status) {
  const auto age = std::chrono::steady_clock::now() - status.started;
  return std::chrono::duration_cast<std::chrono::seconds>(age).count();
}

std::string JsonMs(const std::optional<double>& ms) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", ms.value_or(0));
  return ms ? text : "null";
}

std::string JsonPeer(const PeerStatus& peer) {
  std::string history;
  for (const std::optional<double>& ms : peer.history) {
    history += (history.empty() ? "" : ",") + JsonMs(ms);
  }
  return "{\"url\":" + (peer.url.empty() ? "null" : JsonString(peer.url)) + ",\"state\":" + JsonString(peer.state) +
         ",\"http_status\":" + (peer.httpStatus == 0 ? "null" : std::to_string(peer.httpStatus)) +
         ",\"response_ms\":" + JsonMs(peer.responseMs) + ",\"fetches\":" + std::to_string(peer.fetches) +
         ",\"skipped\":" + std::to_string(peer.skipped) + ",\"history\":[" + history + "]}";
}

}  // namespace

std::string ToJson(const Status& status) {
  return "{\"name\":" + JsonString(status.name) + ",\"uptime_s\":" + std::to_string(UptimeSeconds(status)) +
         ",\"loop_passes\":" + std::to_string(status.loopPasses) +
         ",\"timers_fired\":" + std::to_string(status.timersFired) +
         ",\"requests\":" + std::to_string(status.requests) + ",\"clients\":" + std::to_string(status.clients) +
         ",\"peer\":" + JsonPeer(status.peer) +
         ",\"network\":{\"snapshots\":" + std::to_string(status.network.snapshots) +
         ",\"took_ms\":" + JsonMs(status.network.tookMs) + "}," + status.network.tables + "}\n";
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
