#include "process/child.h"

#include <kiv/fs.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "internal/unique_dir.h"
#include "process/exit_status.h"

namespace kiv::process {
namespace {

constexpr long kFirstInherited = 3;

std::vector<std::string> ArgumentStrings(const std::string& path, const std::vector<std::string>& args) {
  std::vector<std::string> strings;
  strings.reserve(args.size() + 1);
  strings.push_back(fs::Basename(path));
  strings.insert(strings.end(), args.begin(), args.end());
  return strings;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& string : strings) {
    pointers.push_back(string.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

void ExecChild(const std::string& path, const std::vector<std::string>& args) noexcept {
  try {
    // The caller may block what its event loop reads from a signalfd; the program is to receive it.
    sigset_t none;
    sigemptyset(&none);
    (void)::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    CloseInheritedDescriptors();
    std::vector<std::string> strings = ArgumentStrings(path, args);
    const std::vector<char*> argv = Pointers(strings);
    ::execvp(path.c_str(), argv.data());
  } catch (...) {
    // Deliberate: what the vectors throw (no memory, no room) ends here. Let out, it would unwind into the caller's
    // frames, and the caller would go on running twice.
  }
  ::_exit(kNotStarted);
}

void CloseInheritedDescriptors() {
  internal::UniqueDir list("/proc/self/fd");
  if (!list.IsValid()) {
    return;
  }
  while (const char* const name = list.Next()) {
    if (name[0] == '.') {
      continue;
    }
    char* end = nullptr;
    const long fd = std::strtol(name, &end, 10);
    if (*end == '\0' && fd >= kFirstInherited && fd != list.Fd()) {
      (void)::close(static_cast<int>(fd));
    }
  }
}

}  // namespace kiv::process
