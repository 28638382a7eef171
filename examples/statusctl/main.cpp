#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/printable.h"
#include "reader.h"
#include "report.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

const char kDefaultName[] = "/statusd";

const char kHelp[] =
    "Usage: statusctl [--json] [/NAME]\n"
    "Prints the figures that a statusd on this machine, with the option --share /NAME, publishes (/statusd). Only the\n"
    "user that it runs as, and root, can read them.\n"
    "\n"
    "  --json             print one JSON object\n"
    "  --help, --version  print this, or the version, and end\n"
    "\n"
    "Ends with 0 when it is done, 1 when there are no such figures, 2 when the usage is wrong.\n";

struct Arguments {
  std::string name = kDefaultName;
  bool json = false;
};

int Complain(const std::string& what, int status) {
  (void)std::fprintf(stderr, "statusctl: %s\n", Printable(what).c_str());
  return status;
}

// Returns what is wrong with the words of the command line, or nothing.
std::string Parse(const std::vector<std::string>& words, Arguments& out) {
  bool hasName = false;
  for (const std::string& word : words) {
    if (word == "--json") {
      out.json = true;
    } else if (word.compare(0, 1, "-") == 0) {
      return "unknown option " + Quote(word) + "; see --help";
    } else if (hasName) {
      return "one name at a time; see --help";
    } else if (!IsShareName(word)) {
      return Quote(word) + " is not a name such as " + kDefaultName;
    } else {
      out.name = word;
      hasName = true;
    }
  }
  return "";
}

int Print(const std::string& text) {
  (void)std::fwrite(text.data(), 1, text.size(), stdout);
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    return Complain(std::string("cannot write: ") + std::strerror(errno), kFailed);
  }
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  if (std::find(words.begin(), words.end(), "--help") != words.end()) {
    return Print(kHelp);
  }
  if (std::find(words.begin(), words.end(), "--version") != words.end()) {
    return Print("statusctl " STATUSCTL_VERSION "\n");
  }
  Arguments arguments;
  SharedFigures figures{};
  std::string error = Parse(words, arguments);
  if (!error.empty()) {
    return Complain(error, kWrongUsage);
  }
  if (!ReadFigures(arguments.name, figures, error)) {
    return Complain(error, kFailed);
  }
  return Print(arguments.json ? ToJson(figures) : ToText(figures));
}
