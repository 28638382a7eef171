#ifndef EXAMPLES_SHARED_FIGURES_H
#define EXAMPLES_SHARED_FIGURES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

/// One watched process in the shared memory.
struct SharedProcess {
  char name[16];
  std::uint32_t count;
};

/// What statusd publishes in shared memory, once a second: the same bytes for programs of 32 and of 64 bits, in the
/// byte order of the machine. Strings are cut to fit, and end with a zero.
///
/// A semaphore of the same name, whose count is 1 while nobody is at it, says whose turn it is. To read, open the
/// memory with size 0, check magic, version and size, take the semaphore, copy, and post it at once: an update is left
/// out meanwhile, and who has it for five updates is taken for dead. Then both names lead to new objects; a reader that
/// goes on looking opens them anew each time, and sees by `pid` and `publishedMs` what has become of the writer.
///
/// A change of the layout gets a new version. Bytes that are reserved are zero.
struct SharedFigures {
  static constexpr std::uint32_t kMagic = 0x44535453;  ///< "STSD", where the lowest byte comes first.
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::size_t kMaxProcesses = 16;

  std::uint32_t magic;
  std::uint32_t version;
  std::uint32_t size;        ///< Of this struct.
  std::int32_t pid;          ///< Of the statusd that publishes.
  std::uint64_t published;   ///< The number of this update, from 1 on.
  std::int64_t publishedMs;  ///< CLOCK_MONOTONIC.
  std::int64_t uptimeSeconds;
  std::uint64_t loopPasses;
  std::uint64_t timersFired;
  std::uint64_t requests;
  std::uint64_t clients;
  char name[65];
  char url[64];
  char peerState[16];  ///< "none", "waiting", "up", "slow", "error", "nonsense" or "down", as on the page.
  std::uint8_t reserved1[3];
  std::int32_t peerHttpStatus;  ///< 0 when there is none.
  std::int64_t peerResponseUs;  ///< -1 when there is none.
  std::uint32_t processCount;
  SharedProcess processes[kMaxProcesses];
  std::int32_t commandExitCode;  ///< -1 while there is none.
  std::uint64_t commandRuns;
  char commandOutput[257];
  std::uint8_t commandIsSet;
  std::uint8_t reserved2[6];
};

static_assert(sizeof(SharedProcess) == 20);
static_assert(offsetof(SharedFigures, name) == 72);
static_assert(offsetof(SharedFigures, peerResponseUs) == 224);
static_assert(offsetof(SharedFigures, commandRuns) == 560);
static_assert(sizeof(SharedFigures) == 832);

/// Copies as much of `text` as fits, and a zero.
template <std::size_t Size>
void SetText(char (&field)[Size], const std::string& text) {
  const std::size_t length = text.copy(field, Size - 1);
  std::memset(field + length, 0, Size - length);
}

/// Returns the text of a field, whatever is in it.
template <std::size_t Size>
std::string GetText(const char (&field)[Size]) {
  return {field, ::strnlen(field, Size)};
}

/// Tells whether statusd can publish under this name: one '/', in front, and 2 to 200 bytes without control characters.
/// "/sem.x" is where the C library keeps the semaphore "/x".
inline bool IsShareName(const std::string& name) {
  bool valid = name.size() >= 2 && name.size() <= 200 && name.rfind('/') == 0 && name.compare(0, 5, "/sem.") != 0;
  for (const char c : name) {
    valid = valid && static_cast<unsigned char>(c) >= 0x20 && c != 0x7F;
  }
  return valid;
}

#endif  // EXAMPLES_SHARED_FIGURES_H
