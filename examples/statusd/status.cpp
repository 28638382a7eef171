#include "status.h"

#include <cstdio>

namespace {

long long UptimeSeconds(const Status& status) {
  const auto age = std::chrono::steady_clock::now() - status.started;
  return std::chrono::duration_cast<std::chrono::seconds>(age).count();
}

// The length of the UTF-8 character at `at`, or 0 when there is none.
std::size_t Utf8Length(const std::string& text, std::size_t at) {
  const auto byte = [&text](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const unsigned int lead = byte(at);
  const unsigned int next = byte(at + 1);
  if (lead < 0x80) {
    return 1;
  }
  // Overlong forms, surrogates, and code points that do not exist.
  if (lead < 0xC2 || lead > 0xF4 || (lead == 0xE0 && next < 0xA0) || (lead == 0xED && next > 0x9F) ||
      (lead == 0xF0 && next < 0x90) || (lead == 0xF4 && next > 0x8F)) {
    return 0;
  }
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length;
}

std::string JsonString(const std::string& text) {
  std::string json = "\"";
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = Utf8Length(text, i);
    const auto byte = static_cast<unsigned char>(text[i]);
    if (length == 0) {
      json += "\\ufffd";
    } else if (byte < 0x20 || byte == 0x7F || byte == '"' || byte == '\\') {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned int>(byte));
      json += escape;
    } else {
      json.append(text, i, length);
    }
    i += length == 0 ? 1 : length;
  }
  return json + "\"";
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
         ",\"peer\":" + JsonPeer(status.peer) + "}\n";
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
