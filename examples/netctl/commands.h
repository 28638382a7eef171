#ifndef NETCTL_COMMANDS_H
#define NETCTL_COMMANDS_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "table.h"

/// What the command line holds for the words of a grammar that stand for something: NAME, on|off, ...
using Arguments = std::vector<std::string>;

/// How a change went, and the reason of a failure where one is known.
struct Result {
  Result(bool isDone, std::string why = "") : done(isDone), reason(std::move(why)) {}

  bool done;
  std::string reason;
};

/// One command, and its line of the help: either it changes something, or it lists.
struct Command {
  using Change = std::function<Result(const Arguments&)>;
  using List = std::function<Table(const Arguments&)>;

  Command(const char* words, const char* text, Change does, const char* advice = "the kernel refused")
      : grammar(words), help(text), change(std::move(does)), hint(advice) {}
  Command(const char* words, const char* text, List lists) : grammar(words), help(text), list(std::move(lists)) {}

  std::string grammar;
  const char* help;
  Change change;
  List list;
  const char* hint = "";  ///< What may be wrong when nothing more is known.
};

extern const std::vector<Command> kCommands;

/// Tells whether `value` will do for `word` of a grammar, such as BYTES; otherwise `wanted` says what would.
bool IsValid(const std::string& word, const std::string& value, std::string& wanted);

#endif  // NETCTL_COMMANDS_H
