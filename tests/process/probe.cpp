// Tells what a program sees of itself when the library has started it. "probe MODE ...", where MODE is
//
// - args: argv, each as "LENGTH BYTES" and a newline.
//
// - report [FILE]: to FILE or descriptor 1, lines "KEY VALUE": stdin (what reading a byte from descriptor 0 gives, how
//   many or an error text), fds (the open descriptors, ascending), fd0 to fd2 ("MODE TARGET" for those that are open;
//   MODE is r, w or rw), pid, ppid, pgid, sid, tty (0 without a controlling terminal), umask (octal), cwd, SigBlk and
//   SigIgn (as in proc(5)). There is no SigCgt: a sanitizer catches signals.
//
// - fill N: N bytes to standard output; byte I is I modulo 251.
//
// - alternate N: N times a line to standard output, then one to standard error, each by a write of its own.
//
// - exit CODE: nothing but an end with CODE.
//
// - kill SIGNO: death of SIGNO, without a core dump.
//
// No probe outlives a minute.

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace {

constexpr int kBadUsage = 99;

bool WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t size = ::write(fd, text.data() + done, text.size() - done);
    if (size < 0) {
      return false;
    }
    done += static_cast<std::size_t>(size);
  }
  return true;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string StandardInput() {
  char byte = 0;
  const ssize_t size = ::read(STDIN_FILENO, &byte, 1);
  return size >= 0 ? std::to_string(size) : std::strerror(errno);
}

std::set<int> OpenDescriptors() {
  std::set<int> fds;
  DIR* const list = ::opendir("/proc/self/fd");
  if (list == nullptr) {
    return fds;
  }
  while (const dirent* const entry = ::readdir(list)) {
    if (entry->d_name[0] != '.') {
      fds.insert(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
    }
  }
  fds.erase(::dirfd(list));
  (void)::closedir(list);
  return fds;
}

std::string Target(int fd) {
  char target[PATH_MAX];
  const ssize_t size = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
  return size < 0 ? "" : std::string(target, static_cast<std::size_t>(size));
}

const char* Mode(int fd) {
  const int mode = ::fcntl(fd, F_GETFL) & O_ACCMODE;
  return mode == O_RDWR ? "rw" : mode == O_WRONLY ? "w" : "r";
}

std::string Line(const std::string& key, const std::string& value) { return key + " " + value + "\n"; }

std::string Descriptors() {
  std::string numbers;
  std::string standard;
  for (const int fd : OpenDescriptors()) {
    numbers += (numbers.empty() ? "" : " ") + std::to_string(fd);
    if (fd <= STDERR_FILENO) {
      standard += Line("fd" + std::to_string(fd), std::string(Mode(fd)) + " " + Target(fd));
    }
  }
  return Line("fds", numbers) + standard;
}

std::string StatusLine(const std::string& key) {
  const std::string status = ReadFile("/proc/self/status");
  const std::size_t begin = status.find("\n" + key + ":\t");
  if (begin == std::string::npos) {
    return "";
  }
  const std::size_t value = begin + key.size() + 3;
  return Line(key, status.substr(value, status.find('\n', value) - value));
}

// The seventh field of /proc/self/stat; the second one is the name in parentheses.
std::string Terminal() {
  const std::string stat = ReadFile("/proc/self/stat");
  std::size_t at = stat.rfind(')');
  for (int field = 2; field < 7 && at != std::string::npos; ++field) {
    at = stat.find(' ', at + 1);
  }
  return at == std::string::npos ? "" : stat.substr(at + 1, stat.find(' ', at + 1) - at - 1);
}

std::string Umask() {
  const mode_t mask = ::umask(0);
  (void)::umask(mask);
  char text[16];
  (void)std::snprintf(text, sizeof text, "%03o", static_cast<unsigned>(mask));
  return text;
}

std::string WorkingFolder() {
  char path[PATH_MAX];
  return ::getcwd(path, sizeof path) == nullptr ? "" : path;
}

std::string Report() {
  std::string report = Line("stdin", StandardInput());  // First: what is opened later takes the number 0.
  report += Descriptors();
  report += Line("pid", std::to_string(::getpid())) + Line("ppid", std::to_string(::getppid()));
  report += Line("pgid", std::to_string(::getpgrp())) + Line("sid", std::to_string(::getsid(0)));
  report += Line("tty", Terminal()) + Line("umask", Umask()) + Line("cwd", WorkingFolder());
  return report + StatusLine("SigBlk") + StatusLine("SigIgn");
}

bool Save(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  return file.good();
}

std::string Arguments(int argc, char** argv) {
  std::string text;
  for (int i = 0; i < argc; ++i) {
    text += std::to_string(std::strlen(argv[i])) + " " + argv[i] + "\n";
  }
  return text;
}

char FillByte(std::size_t index) { return static_cast<char>(index % 251); }

bool Fill(std::size_t size) {
  constexpr std::size_t kPiece = 251 * 17;
  std::string piece(kPiece, '\0');
  for (std::size_t i = 0; i < kPiece; ++i) {
    piece[i] = FillByte(i);
  }
  for (std::size_t done = 0; done < size; done += kPiece) {
    if (!WriteAll(STDOUT_FILENO, piece.substr(0, std::min(kPiece, size - done)))) {
      return false;
    }
  }
  return true;
}

bool Alternate(long count) {
  for (long i = 0; i < count; ++i) {
    if (!WriteAll(STDOUT_FILENO, "out " + std::to_string(i) + "\n") ||
        !WriteAll(STDERR_FILENO, "err " + std::to_string(i) + "\n")) {
      return false;
    }
  }
  return true;
}

void DieOf(int signo) {
  const rlimit none{0, 0};
  (void)::setrlimit(RLIMIT_CORE, &none);
  (void)std::signal(signo, SIG_DFL);  // A sanitizer has handlers of its own.
  (void)std::raise(signo);
}

int Run(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  const std::string value = argc > 2 ? argv[2] : "";
  const long number = std::strtol(value.c_str(), nullptr, 10);
  bool good = true;
  if (mode == "args") {
    good = WriteAll(STDOUT_FILENO, Arguments(argc, argv));
  } else if (mode == "report") {
    good = value.empty() ? WriteAll(STDOUT_FILENO, Report()) : Save(value, Report());
  } else if (mode == "fill") {
    good = Fill(static_cast<std::size_t>(number));
  } else if (mode == "alternate") {
    good = Alternate(number);
  } else if (mode == "exit") {
    return static_cast<int>(number);
  } else if (mode == "kill") {
    DieOf(static_cast<int>(number));
  } else {
    return kBadUsage;
  }
  return good ? 0 : 1;
}

}  // namespace

// Without the leak check of a sanitizer, which is slow.
int main(int argc, char** argv) {
  (void)::alarm(60);
  ::_exit(Run(argc, argv));
}
