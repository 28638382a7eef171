#include <kiv/net.h>
#include <kiv/utils.h>
#include <net/if.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "commands.h"
#include "common/printable.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

using Words = std::vector<std::string>;

// How many words of a command line a grammar explains, and what stands there for its variable words.
struct Match {
  const Command* command = nullptr;
  Words words;
  Arguments arguments;
};

std::string Joined(const Words& words) {
  std::string line;
  for (const std::string& word : words) {
    line += (line.empty() ? "" : " ") + Printable(word);
  }
  return line;
}

int Complain(const std::string& what, int status) {
  (void)std::fprintf(stderr, "netctl: %s\n", what.c_str());
  return status;
}

bool StandsForAnything(const std::string& word) { return std::isupper(static_cast<unsigned char>(word[0])) != 0; }

bool IsChoice(const std::string& word) { return word.find('|') != std::string::npos; }

bool Accepts(const std::string& grammarWord, const std::string& word) {
  const Words choices = kiv::utils::Split(grammarWord, "|");
  return StandsForAnything(grammarWord) || std::find(choices.begin(), choices.end(), word) != choices.end();
}

// Leaves off at the first word that does not fit.
Match Compare(const Command& command, const Words& line) {
  const Words grammar = kiv::utils::Split(command.grammar, " ");
  Match match{&command, {}, {}};
  for (std::size_t i = 0; i < std::min(grammar.size(), line.size()) && Accepts(grammar[i], line[i]); ++i) {
    match.words.push_back(grammar[i]);
    if (StandsForAnything(grammar[i]) || IsChoice(grammar[i])) {
      match.arguments.push_back(line[i]);
    }
  }
  return match;
}

bool IsComplete(const Match& match, const Words& line) {
  return match.command != nullptr && match.words.size() == line.size() && Joined(match.words) == match.command->grammar;
}

// Finds the command that fits, or else the one that fits longest.
Match Find(const Words& line) {
  Match best;
  for (const Command& command : kCommands) {
    Match match = Compare(command, line);
    if (IsComplete(match, line)) {
      return match;
    }
    if (match.words.size() > best.words.size()) {
      best = std::move(match);
    }
  }
  return best;
}

// Returns what may follow the first word of a command, or nothing when no command begins with it.
std::string ListFollowers(const std::string& first) {
  std::string list;
  for (const Command& command : kCommands) {
    const Words grammar = kiv::utils::Split(command.grammar, " ");
    if (grammar[0] == first && grammar.size() > 1 && list.find(" " + grammar[1]) == std::string::npos) {
      list += " " + grammar[1];
    }
  }
  return list.empty() ? list : "; " + first + " is followed by one of:" + list;
}

// Returns what is wrong with the words of the command line, or nothing.
std::string FindMisuse(const Match& match, const Words& line, bool json) {
  if (line.empty()) {
    return "no command, see netctl --help";
  }
  if (match.words.size() < 2 && !IsComplete(match, line)) {
    return "there is no command " + Joined({line.begin(), line.begin() + (line.size() > 1 ? 2 : 1)}) +
           ListFollowers(line[0]) + ", see netctl --help";
  }
  if (!IsComplete(match, line)) {
    return "usage: netctl " + match.command->grammar + " (all commands: netctl --help)";
  }
  if (json && !match.command->list) {
    return "--json is for commands that list, and " + Joined(line) + " does not";
  }
  for (std::size_t i = 0; i < line.size(); ++i) {
    std::string wanted;
    if (!IsValid(match.words[i], line[i], wanted)) {
      return Joined(line) + ": " + Printable(line[i]) + " is not " + wanted;
    }
  }
  return {};
}

// The names of interfaces are where most failures come from, and all that can be looked up afterwards.
std::string ExplainNames(const Match& match, const Words& line) {
  for (std::size_t i = 0; i < line.size(); ++i) {
    const std::string& word = match.words[i];
    const bool isNew = word == "NAME" && line[1] == "add";
    if (line[0] == "hostname" || (word != "NAME" && word != "IFACE" && word != "PARENT" && word != "MASTER")) {
      continue;
    }
    if (line[i].size() >= IFNAMSIZ) {
      return Printable(line[i]) + " is longer than the 15 bytes of a name";
    }
    const bool exists = kiv::net::GetInterfaceIndex(line[i]) != 0;
    const int reason = isNew ? EEXIST : errno;
    if (exists == isNew) {
      return Printable(line[i]) + ": " + std::strerror(reason);
    }
  }
  return {};
}

// Tells whether CAP_NET_ADMIN, number 12, is among the effective capabilities: root may lack it, others may have it.
bool MayChangeTheNetwork() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, 7, "CapEff:") == 0) {
      return (std::strtoull(line.c_str() + 7, nullptr, 16) >> 12 & 1) != 0;
    }
  }
  return true;
}

// The library tells no reason, so this is what is likely, the surest first.
std::string Explain(const Match& match, const Words& line, const Result& result) {
  if (!result.reason.empty()) {
    return result.reason;
  }
  const std::string names = ExplainNames(match, line);
  if (!names.empty()) {
    return names;
  }
  if (!MayChangeTheNetwork()) {
    return "not permitted: needs CAP_NET_ADMIN";
  }
  return match.command->hint;
}

int Run(const Match& match, const Words& line, bool json) {
  if (match.command->change) {
    const Result result = match.command->change(match.arguments);
    return result.done ? kDone : Complain(Joined(line) + " failed: " + Explain(match, line, result), kFailed);
  }
  const Table table = match.command->list(match.arguments);
  const std::string text = json ? ToJson(table) : ToText(table);
  (void)std::fwrite(text.data(), 1, text.size(), stdout);  // The stream remembers a failure for main.
  const std::string reason = ExplainNames(match, line);
  return reason.empty() ? kDone : Complain(Joined(line) + " failed: " + reason, kFailed);
}

void PrintHelp() {
  std::printf(
      "Usage: netctl [--json] COMMAND\n"
      "Tries the network functions of libkiv-core by hand, in the network namespace that it is run in.\n\n");
  for (const Command& command : kCommands) {
    std::printf("  %-40s%s\n", command.grammar.c_str(), command.help);
  }
  std::printf(
      "\n"
      "  --json            before a command that lists: an array of records, in JSON\n"
      "  --help, --version print this, or the version, and end\n"
      "\n"
      "link add, vlan add, link mtu and link mac clear every flag of the interface in the same request: switch flags\n"
      "and bring it up afterwards. Ends with 0 when it is done, 1 when it failed, 2 when the usage is wrong.\n");
}

int RunLine(Words line) {
  if (line == Words{"--help"}) {
    PrintHelp();
    return kDone;
  }
  if (line == Words{"--version"}) {
    std::printf("netctl %s\n", NETCTL_VERSION);
    return kDone;
  }
  const bool json = !line.empty() && line[0] == "--json";
  line.erase(line.begin(), line.begin() + (json ? 1 : 0));
  const Match match = Find(line);
  const std::string misuse = FindMisuse(match, line, json);
  return misuse.empty() ? Run(match, line, json) : Complain(misuse, kWrongUsage);
}

}  // namespace

int main(int argc, char** argv) {
  const int status = RunLine({argv + std::min(argc, 1), argv + argc});
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    return Complain(std::string("cannot write: ") + std::strerror(errno), kFailed);
  }
  return status;
}
