#include "utils/crc32.h"

#include <gtest/gtest.h>
#include <kiv/utils.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#ifdef KIV_HAVE_ZLIB
#include <zlib.h>
#endif

namespace kiv::utils {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t kLongest = 4096;
constexpr std::size_t kAlignments = 64;
constexpr unsigned int kStart = 0xFFFFFFFF;

// One bit after another, without any table.
unsigned int ReferenceByte(unsigned int crc, unsigned char byte) {
  crc ^= byte;
  for (int bit = 0; bit < 8; ++bit) {
    const bool isOne = crc % 2 == 1;
    crc /= 2;
    if (isOne) {
      crc ^= 0xEDB88320U;
    }
  }
  return crc;
}

unsigned int Reference(unsigned int crc, const unsigned char* data, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    crc = ReferenceByte(crc, data[i]);
  }
  return crc;
}

Bytes RandomBytes(std::size_t size) {
  std::mt19937 random(20240229);
  Bytes bytes(size);
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(random() >> 24);
  }
  return bytes;
}

const Bytes& Message() {
  static const Bytes message = RandomBytes(kLongest);
  return message;
}

// The running value behind every number of bytes of the message, from none to all.
const std::vector<unsigned int>& RunningValues() {
  static const std::vector<unsigned int> values = [] {
    std::vector<unsigned int> made{kStart};
    for (const unsigned char byte : Message()) {
      made.push_back(ReferenceByte(made.back(), byte));
    }
    return made;
  }();
  return values;
}

unsigned int Update(unsigned int crc, const unsigned char* data, std::size_t size) {
  return UpdateCrc32(crc, data, static_cast<unsigned int>(size));
}

const unsigned int kSomeRunningValues[] = {0, 1, 0x80000000, 0x7FFFFFFF, 0xEDB88320, 0x12345678, 0xFFFFFFFE, kStart};

bool ProcessorHasInstructions() {
#if defined(__x86_64__)
  std::ifstream file("/proc/cpuinfo");
  for (std::string word; file >> word;) {
    if (word == "pclmulqdq") {
      return true;
    }
  }
  return false;
#elif defined(__ARM_FEATURE_CRC32)
  return true;
#else
  return false;
#endif
}

// Bytes between pages that nobody may touch.
class GuardedBuffer {
 public:
  GuardedBuffer() : mPages(::mmap(nullptr, 3 * kPart, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    EXPECT_NE(mPages, MAP_FAILED);
    EXPECT_EQ(::mprotect(Begin(), kPart, PROT_READ | PROT_WRITE), 0);
  }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;
  ~GuardedBuffer() { (void)::munmap(mPages, 3 * kPart); }

  unsigned char* Begin() const { return static_cast<unsigned char*>(mPages) + kPart; }
  unsigned char* End() const { return Begin() + kPart; }

 private:
  static constexpr std::size_t kPart = 65536;  // A multiple of every size of page.

  void* mPages;
};

static_assert(std::is_same_v<decltype(&UpdateCrc32), unsigned int (*)(unsigned int, const void*, unsigned int)>);
static_assert(std::is_same_v<decltype(&FinalCrc32), unsigned int (*)(unsigned int)>);
static_assert(std::is_same_v<decltype(CalcCrc32(std::string())), unsigned int>);
static_assert(std::is_same_v<decltype(CalcCrc32(nullptr, 0)), unsigned int>);

static_assert(kCrc32Table.size() == 256);
static_assert(sizeof(kCrc32Table[0]) == sizeof(unsigned int));
static_assert(kCrc32Table[0] == 0);
static_assert(kCrc32Table[1] == 0x77073096, "known when this is compiled");
static_assert(kCrc32Table[255] == 0x2D02EF8D);

TEST(Crc32Table, EntryIsItsByteAfterEightSteps) {
  for (unsigned int i = 0; i < 256; ++i) {
    EXPECT_EQ(kCrc32Table[i], ReferenceByte(0, static_cast<unsigned char>(i))) << i;
  }
}

TEST(CalcCrc32, OfTheNineDigitsIsTheCheckValue) {
  EXPECT_EQ(CalcCrc32("123456789", 9), 0xCBF43926U);
  EXPECT_EQ(CalcCrc32(std::string("123456789")), 0xCBF43926U);
}

TEST(CalcCrc32, OfNothingIsZero) {
  EXPECT_EQ(CalcCrc32(std::string()), 0U);
  EXPECT_EQ(CalcCrc32("x", 0), 0U);
  EXPECT_EQ(CalcCrc32(nullptr, 0), 0U);
}

TEST(CalcCrc32, OfANullPointerIsZeroWhateverTheLength) { EXPECT_EQ(CalcCrc32(nullptr, 10), 0U); }

TEST(CalcCrc32, OfAStringTakesNulsAndHighBytes) {
  std::string text;
  for (int i = 0; i < 256; ++i) {
    text += static_cast<char>(255 - i);
    text += '\0';
  }
  const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());

  EXPECT_EQ(CalcCrc32(text), ~Reference(kStart, bytes, 512));
  EXPECT_EQ(CalcCrc32(text), CalcCrc32(text.data(), 512));
}

TEST(CalcCrc32, OfAnySingleByteIsAsByBits) {
  for (int i = 0; i < 256; ++i) {
    const auto byte = static_cast<unsigned char>(i);
    EXPECT_EQ(CalcCrc32(std::string(1, static_cast<char>(i))), ~ReferenceByte(kStart, byte)) << i;
  }
}

TEST(FinalCrc32, InvertsEveryBit) {
  EXPECT_EQ(FinalCrc32(0), 0xFFFFFFFFU);
  EXPECT_EQ(FinalCrc32(0xFFFFFFFF), 0U);
  EXPECT_EQ(FinalCrc32(0x12345678), 0xEDCBA987U);
  EXPECT_EQ(FinalCrc32(0x80000001), 0x7FFFFFFEU);
}

TEST(UpdateCrc32, OfANullPointerKeepsTheRunningValue) {
  for (const unsigned int crc : kSomeRunningValues) {
    EXPECT_EQ(UpdateCrc32(crc, nullptr, 10), crc);
    EXPECT_EQ(UpdateCrc32(crc, nullptr, 0), crc);
    EXPECT_EQ(UpdateCrc32(crc, nullptr, 0xFFFFFFFF), crc);
  }
}

TEST(UpdateCrc32, OfNoBytesKeepsTheRunningValue) {
  for (const unsigned int crc : kSomeRunningValues) {
    EXPECT_EQ(UpdateCrc32(crc, "123456789", 0), crc);
  }
}

TEST(UpdateCrc32, IsNotInvertedBetweenPieces) {
  EXPECT_EQ(UpdateCrc32(kStart, "123456789", 9), 0x340BC6D9U);
  EXPECT_EQ(UpdateCrc32(0, "\0", 1), 0U);
  EXPECT_EQ(UpdateCrc32(0, "\1", 1), 0x77073096U);
}

TEST(UpdateCrc32, TwoPiecesOfTheNineDigitsGiveTheCheckValue) {
  unsigned int crc = kStart;
  crc = UpdateCrc32(crc, "1234", 4);
  crc = UpdateCrc32(crc, "56789", 5);

  EXPECT_EQ(FinalCrc32(crc), CalcCrc32("123456789", 9));
  EXPECT_EQ(FinalCrc32(crc), 0xCBF43926U);
}

TEST(UpdateCrc32, AnyLengthAtAnyAlignmentIsAsByBits) {
  Bytes space(kLongest + 2 * kAlignments);
  const std::size_t misaligned = reinterpret_cast<std::uintptr_t>(space.data()) % kAlignments;
  for (std::size_t alignment = 0; alignment < kAlignments; ++alignment) {
    unsigned char* const data = space.data() + kAlignments - misaligned + alignment;
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(data) % kAlignments, alignment);
    std::memcpy(data, Message().data(), kLongest);
    for (std::size_t size = 0; size <= kLongest; ++size) {
      ASSERT_EQ(Update(kStart, data, size), RunningValues()[size]) << size << " bytes at " << alignment;
    }
  }
}

TEST(UpdateCrc32, AnyTwoPiecesAreAsTheWhole) {
  const unsigned char* const data = Message().data();
  for (std::size_t cut = 0; cut <= kLongest; ++cut) {
    const unsigned int crc = Update(Update(kStart, data, cut), data + cut, kLongest - cut);
    ASSERT_EQ(crc, RunningValues()[kLongest]) << cut;
  }
}

TEST(UpdateCrc32, AnyThreePiecesAreAsTheWhole) {
  constexpr std::size_t kSize = 280;
  const unsigned char* const data = Message().data();
  for (std::size_t first = 0; first <= kSize; ++first) {
    const unsigned int begun = Update(kStart, data, first);
    for (std::size_t second = first; second <= kSize; ++second) {
      const unsigned int crc = Update(Update(begun, data + first, second - first), data + second, kSize - second);
      ASSERT_EQ(crc, RunningValues()[kSize]) << first << ", " << second;
    }
  }
}

TEST(UpdateCrc32, PiecesOfOneSizeAreAsTheWhole) {
  for (const std::size_t piece : {1U, 7U, 8U, 63U, 64U, 65U, 128U, 1000U}) {
    unsigned int crc = kStart;
    for (std::size_t done = 0; done < kLongest; done += piece) {
      crc = Update(crc, Message().data() + done, std::min(piece, kLongest - done));
    }
    EXPECT_EQ(crc, RunningValues()[kLongest]) << piece;
  }
}

TEST(UpdateCrc32, GoesOnFromAnyRunningValue) {
  std::mt19937 random(7);
  for (std::size_t size = 0; size <= 300; ++size) {
    const auto drawn = static_cast<unsigned int>(random());
    EXPECT_EQ(Update(drawn, Message().data(), size), Reference(drawn, Message().data(), size)) << size << ' ' << drawn;
    for (const unsigned int crc : kSomeRunningValues) {
      EXPECT_EQ(Update(crc, Message().data(), size), Reference(crc, Message().data(), size)) << size << ' ' << crc;
    }
  }
}

TEST(UpdateCrc32, ReadsNothingOutsideTheBuffer) {
  const GuardedBuffer buffer;
  for (std::size_t size = 0; size <= kLongest; ++size) {
    for (unsigned char* const data : {buffer.Begin(), buffer.End() - size}) {
      std::memcpy(data, Message().data(), size);
      ASSERT_EQ(Update(kStart, data, size), RunningValues()[size]) << size;
      ASSERT_EQ(UpdateCrc32ByTables(kStart, data, size), RunningValues()[size]) << size;
    }
  }
}

TEST(UpdateCrc32, MessagesUpToAMebibyteAreAsByBits) {
  std::mt19937 random(11);
  const Bytes message = RandomBytes(std::size_t{1} << 20);
  for (int i = 0; i < 8; ++i) {
    const std::size_t begin = random() % kAlignments;
    const std::size_t size = random() % (message.size() - begin);
    const unsigned char* const data = message.data() + begin;
    EXPECT_EQ(Update(kStart, data, size), Reference(kStart, data, size)) << size << " bytes from " << begin;
  }
  EXPECT_EQ(Update(kStart, message.data(), message.size()), Reference(kStart, message.data(), message.size()));
}

#if SIZE_MAX > UINT32_MAX

// The pages are never written, so they take no memory. gzip(1) writes the same checksum behind as many zeros.
TEST(CalcCrc32, TakesMoreThanTwoGibibytesAtOnce) {
  constexpr std::size_t kSize = 0x80000001;
  void* const zeros = ::mmap(nullptr, kSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(zeros, MAP_FAILED);

  EXPECT_EQ(CalcCrc32(zeros, kSize), 0xC64E0E30U);

  (void)::munmap(zeros, kSize);
}

#endif

// CTest gives every case a process of its own, so the threads are the first to ask what the processor can do.
TEST(UpdateCrc32, FirstUseInManyThreadsAtOnceIsRight) {
  const unsigned int expected = RunningValues()[kLongest];
  std::atomic<int> right{0};
  std::atomic<bool> isOpen{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&] {
      while (!isOpen) {
        std::this_thread::yield();
      }
      right += Update(kStart, Message().data(), kLongest) == expected ? 1 : 0;
    });
  }

  isOpen = true;
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(right, 16);
}

TEST(UpdateCrc32ByTables, IsAsByBits) {
  for (std::size_t size = 0; size <= kLongest; ++size) {
    ASSERT_EQ(UpdateCrc32ByTables(kStart, Message().data(), size), RunningValues()[size]) << size;
  }
}

TEST(UpdateCrc32ByTables, GoesOnFromAnyRunningValue) {
  for (std::size_t size = 0; size <= 300; ++size) {
    for (const unsigned int crc : kSomeRunningValues) {
      EXPECT_EQ(UpdateCrc32ByTables(crc, Message().data(), size), Reference(crc, Message().data(), size)) << size;
    }
  }
}

TEST(UpdateCrc32ByInstructions, TakesAsManyBytesAsItSays) {
  for (std::size_t size = 0; size <= kLongest; ++size) {
    std::uint32_t crc = kStart;
    const std::size_t taken = UpdateCrc32ByInstructions(crc, Message().data(), size);
    ASSERT_LE(taken, size);
    ASSERT_EQ(crc, RunningValues()[taken]) << taken << " of " << size;
  }
}

TEST(UpdateCrc32ByInstructions, GoesOnFromAnyRunningValue) {
  for (std::size_t size = 0; size <= 300; ++size) {
    for (const unsigned int running : kSomeRunningValues) {
      std::uint32_t crc = running;
      const std::size_t taken = UpdateCrc32ByInstructions(crc, Message().data(), size);
      EXPECT_EQ(crc, Reference(running, Message().data(), taken)) << taken << " of " << size;
    }
  }
}

TEST(UpdateCrc32ByInstructions, LeavesLittleExactlyWhereTheProcessorHasThem) {
  const bool isFast = ProcessorHasInstructions();
  for (std::size_t size = 0; size <= 300; ++size) {
    std::uint32_t crc = kStart;
    const std::size_t taken = UpdateCrc32ByInstructions(crc, Message().data(), size);
    if (isFast) {
      EXPECT_LT(size - taken, 64U) << size;
    } else {
      EXPECT_EQ(taken, 0U) << size;
    }
  }
}

TEST(LoadLittleEndian, PutsTheFirstByteLowest) {
  const unsigned char bytes[] = {0xFF, 0x01, 0x02, 0x83, 0x04};

  EXPECT_EQ(LoadLittleEndian(bytes), 0x830201FFU);
  EXPECT_EQ(LoadLittleEndian(bytes + 1), 0x04830201U);
}

#ifdef KIV_HAVE_ZLIB

TEST(Crc32Reference, IsZlibs) {
  for (std::size_t size = 0; size <= kLongest; ++size) {
    ASSERT_EQ(~RunningValues()[size], ::crc32(0, Message().data(), static_cast<uInt>(size))) << size;
  }
  for (const unsigned int crc : kSomeRunningValues) {
    EXPECT_EQ(~Reference(crc, Message().data(), 300), ::crc32(~crc, Message().data(), 300));
  }
}

TEST(Crc32Table, IsZlibs) {
  for (std::size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(kCrc32Table[i], ::get_crc_table()[i]) << i;
  }
}

#endif

}  // namespace
}  // namespace kiv::utils
