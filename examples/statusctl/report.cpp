#include "report.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "common/json.h"
#include "common/printable.h"

namespace {

constexpr int kCutOff = 124;  // Of timeout(1), under which statusd runs its command.

using Lines = std::vector<std::pair<std::string, std::string>>;

std::vector<SharedProcess> Processes(const SharedFigures& figures) {
  const std::size_t count = std::min<std::size_t>(figures.processCount, SharedFigures::kMaxProcesses);
  return {figures.processes, figures.processes + count};
}

std::optional<double> ResponseMs(const SharedFigures& figures) {
  if (figures.peerResponseUs < 0) {
    return std::nullopt;
  }
  return static_cast<double>(figures.peerResponseUs) / 1000;
}

// Subtracted without a sign, so that no time of publication, whatever it is, overflows.
std::int64_t AgeMs(const SharedFigures& figures) {
  const auto now =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(now.count()) -
                                   static_cast<std::uint64_t>(figures.publishedMs));
}

std::string PeerLine(const SharedFigures& figures) {
  std::string line = GetText(figures.peerState);
  if (figures.peerHttpStatus != 0) {
    line += " (HTTP " + std::to_string(figures.peerHttpStatus) + ")";
  }
  const std::optional<double> response = ResponseMs(figures);
  return response ? line + " in " + JsonMs(response) + " ms" : line;
}

void AddCommand(const SharedFigures& figures, Lines& lines) {
  if (figures.commandIsSet == 0) {
    return;
  }
  if (figures.commandExitCode < 0) {
    lines.emplace_back("command", "no run has ended yet");
    return;
  }
  const std::string output = GetText(figures.commandOutput);
  const std::string runs = figures.commandRuns == 1 ? " run" : " runs";
  lines.emplace_back("command", "exit " + std::to_string(figures.commandExitCode) +
                                    (figures.commandExitCode == kCutOff ? " (cut off)" : "") + " after " +
                                    std::to_string(figures.commandRuns) + runs);
  lines.emplace_back("output", output.substr(0, output.find('\n')));
}

std::string JsonPeer(const SharedFigures& figures) {
  return "{\"state\":" + JsonString(GetText(figures.peerState)) +
         ",\"http_status\":" + (figures.peerHttpStatus == 0 ? "null" : std::to_string(figures.peerHttpStatus)) +
         ",\"response_ms\":" + JsonMs(ResponseMs(figures)) + "}";
}

std::string JsonProcess(const SharedProcess& process) {
  return "{\"name\":" + JsonString(GetText(process.name)) + ",\"count\":" + std::to_string(process.count) + "}";
}

std::string JsonCommand(const SharedFigures& figures) {
  if (figures.commandIsSet == 0) {
    return "null";
  }
  return "{\"runs\":" + std::to_string(figures.commandRuns) +
         ",\"exit_code\":" + (figures.commandExitCode < 0 ? "null" : std::to_string(figures.commandExitCode)) +
         ",\"output\":" + JsonString(GetText(figures.commandOutput)) + "}";
}

}  // namespace

std::string ToText(const SharedFigures& figures) {
  Lines lines = {
      {"name", GetText(figures.name)},
      {"pid", std::to_string(figures.pid)},
      {"page", GetText(figures.url)},
      {"published", std::to_string(AgeMs(figures)) + " ms ago"},
      {"up", std::to_string(figures.uptimeSeconds) + " s"},
      {"loop passes", std::to_string(figures.loopPasses)},
      {"timers", std::to_string(figures.timersFired)},
      {"requests", std::to_string(figures.requests)},
      {"clients", std::to_string(figures.clients)},
      {"peer", PeerLine(figures)},
  };
  for (const SharedProcess& process : Processes(figures)) {
    lines.emplace_back("process " + Printable(GetText(process.name)), std::to_string(process.count) + " running");
  }
  AddCommand(figures, lines);
  std::size_t width = 0;
  for (const auto& [key, value] : lines) {
    width = std::max(width, Width(key));
  }
  std::string text;
  for (const auto& [key, value] : lines) {
    text += key + ": " + std::string(width - Width(key), ' ') + Printable(value) + "\n";
  }
  return text;
}

std::string ToJson(const SharedFigures& figures) {
  return "{\"name\":" + JsonString(GetText(figures.name)) + ",\"pid\":" + std::to_string(figures.pid) +
         ",\"url\":" + JsonString(GetText(figures.url)) + ",\"uptime_s\":" + std::to_string(figures.uptimeSeconds) +
         ",\"loop_passes\":" + std::to_string(figures.loopPasses) +
         ",\"timers_fired\":" + std::to_string(figures.timersFired) +
         ",\"requests\":" + std::to_string(figures.requests) + ",\"clients\":" + std::to_string(figures.clients) +
         ",\"published\":" + std::to_string(figures.published) + ",\"age_ms\":" + std::to_string(AgeMs(figures)) +
         ",\"peer\":" + JsonPeer(figures) + ",\"processes\":" + JsonList(Processes(figures), JsonProcess) +
         ",\"command\":" + JsonCommand(figures) + "}\n";
}
