#include "process/pid_text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

namespace kiv::process {
namespace {

constexpr long kMaxPid = 4194304;

}  // namespace

int PidOfFileContent(const char* text) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  // Deliberate: whitespace in front is taken, as strtol(3) does, and none behind. A pid file of another program, which
  // usually ends in a newline, never stops this one.
  const bool isPid = errno == 0 && end != text && *end == '\0' && value >= 1 && value <= kMaxPid;
  return isPid ? static_cast<int>(value) : 0;
}

int PidOfProcEntry(const std::string& name) {
  if (name.find_first_not_of("0123456789") != std::string::npos) {
    return 0;
  }
  // A number beyond the range saturates: a cast of it might make -1, which kill(2) takes for all processes.
  constexpr long kMax = std::numeric_limits<int>::max();
  return static_cast<int>(std::min(std::strtol(name.c_str(), nullptr, 10), kMax));
}

}  // namespace kiv::process
