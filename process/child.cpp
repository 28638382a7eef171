#include "process/child.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory_resource>

#include "fs/path.h"
#include "internal/unique_fd.h"
#include "process/exit_status.h"

namespace kiv::process {
namespace {

constexpr long kFirstInherited = 3;
// The kernel's own record, which this build of the C library shares.
static_assert(offsetof(dirent, d_reclen) == 16 && offsetof(dirent, d_name) == 19);

// Memory straight from the kernel. The caller's allocator may be locked for ever here, by a thread that is gone.
class Pages final : public std::pmr::memory_resource {
  void* do_allocate(std::size_t size, std::size_t /*alignment*/) override {
    void* const pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
      ::_exit(kNotStarted);
    }
    return pages;
  }
  void do_deallocate(void* /*pages*/, std::size_t /*size*/, std::size_t /*alignment*/) override {
    // Nothing is given back: the program, or the end, takes it all.
  }
  bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override { return this == &other; }
};

using Strings = std::pmr::vector<std::pmr::string>;

Strings ArgumentStrings(const std::string& path, const std::vector<std::string>& args,
                        std::pmr::memory_resource& memory) {
  Strings strings(&memory);
  strings.reserve(args.size() + 1);
  strings.emplace_back(path.c_str() + fs::StartOfBasename(path));
  for (const std::string& arg : args) {
    strings.emplace_back(arg.data(), arg.size());
  }
  return strings;
}

std::pmr::vector<char*> Pointers(Strings& strings, std::pmr::memory_resource& memory) {
  std::pmr::vector<char*> pointers(&memory);
  pointers.reserve(strings.size() + 1);
  for (std::pmr::string& string : strings) {
    pointers.push_back(string.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// Closes the descriptor of this name, unless it is no number, one of the first three, or `list`.
void CloseInherited(const char* name, int list) {
  if (name[0] == '.') {
    return;
  }
  char* end = nullptr;
  const long fd = std::strtol(name, &end, 10);
  if (*end == '\0' && fd >= kFirstInherited && fd != list) {
    (void)::close(static_cast<int>(fd));
  }
}

}  // namespace

void ExecChild(const std::string& path, const std::vector<std::string>& args) noexcept {
  try {
    // The caller may block what its event loop reads from a signalfd; the program is to receive it.
    sigset_t none;
    sigemptyset(&none);
    (void)::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    CloseInheritedDescriptors();
    Pages pages;
    std::pmr::monotonic_buffer_resource memory(&pages);
    Strings strings = ArgumentStrings(path, args, memory);
    const std::pmr::vector<char*> argv = Pointers(strings, memory);
    ::execvp(path.c_str(), argv.data());
  } catch (...) {
    // Deliberate: what a vector without room throws ends here. Let out, it would unwind into the caller's frames, and
    // the caller would go on running twice.
  }
  ::_exit(kNotStarted);
}

// By getdents64(2) with a buffer on the stack: opendir(3) would allocate one. The list is in the order of the numbers,
// and a reader goes on from a number, so that closing what was read leaves nothing out.
void CloseInheritedDescriptors() {
  const internal::UniqueFd list(::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!list.IsValid()) {
    return;
  }
  alignas(dirent) char entries[4096];
  for (;;) {
    const ssize_t size = ::getdents64(list.Get(), entries, sizeof entries);
    if (size <= 0) {
      return;
    }
    unsigned short length = 0;
    for (ssize_t at = 0; at < size; at += length) {
      const char* const entry = entries + at;
      std::memcpy(&length, entry + offsetof(dirent, d_reclen), sizeof length);
      CloseInherited(entry + offsetof(dirent, d_name), list.Get());
    }
  }
}

}  // namespace kiv::process
