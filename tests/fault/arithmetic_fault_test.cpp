#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <kiv/ipc.h>
#include <kiv/net.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "interpose.h"
#include "net/http_message.h"
#include "tests/support.h"

// What is computed in 32 bits, on every architecture alike: the tables have no other answers anywhere. The system calls
// give what no file, disk or clock of a test machine would.
namespace kiv {
namespace {

using test::CallLog;
using test::Decode;
using test::FailCall;
using test::Fault;
using test::GiveFrom;
using test::Octets;
using test::ReturnFrom;

// ------------------------------------------------------------------------------------------------------------- sizes

struct Size {
  std::uint64_t bytes;
  int low;  // The low 32 bits, the highest of them a sign.
};

constexpr Size kSizes[] = {{0, 0},
                           {1, 1},
                           {2147483647, INT_MAX},
                           {2147483648, INT_MIN},
                           {2147483649, INT_MIN + 1},
                           {4294967295, -1},
                           {4294967296, 0},
                           {4294967297, 1},
                           {6442450943, INT_MAX},
                           {6442450944, INT_MIN},
                           {8589934591, -1},
                           {1099511627776 + 512, 512},
                           {9223372034707292160, INT_MIN},
                           {9223372036854775807, -1}};

// More than any file has, since offsets are signed, but not more than a driver may say.
constexpr Size kSizesOfDevices[] = {{9223372036854775808U, 0}, {18446744071562067968U, INT_MIN}, {UINT64_MAX, -1}};

struct stat OfType(mode_t type, std::uint64_t size) {
  struct stat status {};
  status.st_mode = type | 0600;
  status.st_size = static_cast<off_t>(size);
  return status;
}

TEST(GetSizeIn32Bits, FileHasTheLowBitsOfItsSize) {
  for (const Size& row : kSizes) {
    const Fault status = GiveFrom("fstat", Octets(OfType(S_IFREG, row.bytes)));
    EXPECT_EQ(fs::GetSize(4711), row.low) << row.bytes;
  }
}

void ExpectSizeOfDevice(const Size& row) {
  const Fault status = GiveFrom("fstat", Octets(OfType(S_IFBLK, 99)));
  const Fault answer = GiveFrom("ioctl", Octets(row.bytes));
  EXPECT_EQ(fs::GetSize(4711), row.low) << row.bytes;
}

TEST(GetSizeIn32Bits, BlockDeviceHasTheLowBitsOfItsSize) {
  for (const Size& row : kSizes) {
    ExpectSizeOfDevice(row);
  }
  for (const Size& row : kSizesOfDevices) {
    ExpectSizeOfDevice(row);
  }
}

TEST(SharedMemoryIn32Bits, ExistingObjectIsMappedWithTheLowBitsOfItsSize) {
  for (const Size& row : kSizes) {
    const CallLog log;
    const Fault open = ReturnFrom("shm_open", test::EventFd(0).Release());
    const Fault status = GiveFrom("fstat", Octets(OfType(S_IFREG, row.bytes)));
    const Fault map = FailCall("mmap", ENOMEM);

    const ipc::SharedMemory memory("/invented", 0, 0600);

    EXPECT_EQ(memory.GetSize(), static_cast<std::uint32_t>(row.low)) << row.bytes;
    EXPECT_EQ(log.Of("mmap").at(0).args.at(1), static_cast<std::uint32_t>(row.low)) << row.bytes;
  }
}

TEST(SharedMemoryIn32Bits, NewObjectIsMadeWithoutASign) {
  for (const unsigned int size : {1U, 2147483647U, 2147483648U, 4294967295U}) {
    const CallLog log;
    const Fault open = ReturnFrom("shm_open", test::EventFd(0).Release());
    const Fault truncate = ReturnFrom("ftruncate", 0);
    const Fault map = FailCall("mmap", ENOMEM);

    const ipc::SharedMemory memory("/invented", size, 0600);

    EXPECT_EQ(log.Of("ftruncate").at(0).args.at(1), size);
    EXPECT_EQ(log.Of("mmap").at(0).args.at(1), size);
    EXPECT_EQ(memory.GetSize(), size);
  }
}

// -------------------------------------------------------------------------------------------------------- free space

struct Space {
  std::uint64_t blockSize;
  std::uint64_t blocks;
  int bytes;  // Their product modulo 2^32, the upper half of it negative.
};

constexpr Space kSpaces[] = {{4096, 0, 0},
                             {4096, 1, 4096},
                             {4096, 524287, 2147479552},
                             {4096, 524288, INT_MIN},
                             {4096, 524289, INT_MIN + 4096},
                             {4096, 1048575, -4096},
                             {4096, 1048576, 0},
                             {4096, 1048577, 4096},
                             {4096, 1572863, 2147479552},
                             {4096, 1572864, INT_MIN},
                             {1, 2147483647, INT_MAX},
                             {1, 2147483648, INT_MIN},
                             {1, 4294967295, -1},
                             {1, 4294967296, 0},
                             {512, 4294967295, -512},
                             {65536, 32768, INT_MIN},
                             {65536, 65536, 0},
                             {2147483647, 2, -2},
                             {2147483647, 2147483647, 1},
                             {4096, 4294967298, 8192},
                             {4096, UINT64_MAX, -4096}};

struct statfs Filesystem(const Space& available, std::uint64_t free) {
  struct statfs filesystem {};
  filesystem.f_bsize = static_cast<decltype(filesystem.f_bsize)>(available.blockSize);
  filesystem.f_bavail = static_cast<decltype(filesystem.f_bavail)>(available.blocks);
  filesystem.f_bfree = static_cast<decltype(filesystem.f_bfree)>(free);
  return filesystem;
}

TEST(GetSizeFSIn32Bits, IsTheProductOfTheFreeBlocks) {
  for (const Space& row : kSpaces) {
    const Fault fault = GiveFrom("statfs", Octets(Filesystem({row.blockSize, 1, 0}, row.blocks)));
    EXPECT_EQ(fs::GetSizeFS("/"), row.bytes) << row.blockSize << " x " << row.blocks;
  }
}

// Asked for the numbers beside each border, and beside the product itself.
TEST(HasEnoughSpaceIn32Bits, ComparesTheProductOfTheAvailableBlocksWithItsSign) {
  for (const Space& row : kSpaces) {
    SCOPED_TRACE(testing::Message() << row.blockSize << " x " << row.blocks);
    const std::int64_t product = row.bytes;
    for (const std::int64_t wanted : {std::int64_t{0}, std::int64_t{1}, product - 1, product, product + 1,
                                      std::int64_t{INT_MAX - 1}, std::int64_t{INT_MAX}}) {
      if (wanted < 0 || wanted > INT_MAX) {
        continue;
      }
      const Fault fault = GiveFrom("statfs", Octets(Filesystem(row, 1)));
      EXPECT_EQ(fs::HasEnoughSpace("/", static_cast<int>(wanted)), wanted <= product) << wanted;
    }
  }
}

struct Question {
  std::uint64_t size;
  Space available;
  bool isEnough;
};

constexpr Question kQuestions[] = {{0, {1, 0, 0}, true},
                                   {0, {1, 2147483647, 0}, true},
                                   {0, {1, 2147483648, 0}, false},
                                   {0, {1, 4294967295, 0}, false},
                                   {0, {1, 4294967296, 0}, true},
                                   {1, {1, 4294967296, 0}, false},
                                   {4096, {4096, 1048577, 0}, true},
                                   {4097, {4096, 1048577, 0}, false},
                                   {2147483647, {1, 2147483647, 0}, true},
                                   {2147483647, {1, 2147483646, 0}, false},
                                   {4294967296, {1, 0, 0}, true},
                                   {4294967296, {1, 2147483648, 0}, false},
                                   {6442450943, {1, 2147483647, 0}, true},
                                   {6442450943, {1, 2147483646, 0}, false}};

// A copy that may go on is ended where the destination is opened.
fs::error CopyOf(const std::string& source, const Question& question) {
  const Fault status = GiveFrom("fstat", Octets(OfType(S_IFREG, question.size)));
  const Fault space = GiveFrom("statfs", Octets(Filesystem(question.available, 0)));
  std::optional<Fault> open;
  if (question.isEnough) {
    open.emplace("open", -1, EIO, 2);
  }
  return fs::Copy(source, source + ".copy", false);
}

TEST(CopyIn32Bits, AsksWhetherTheLowBitsOfTheSizeAreFree) {
  const test::TempFolder folder;
  const std::string source = folder.Path() + "/source";
  test::WriteFile(source, "content");
  for (const Question& row : kQuestions) {
    EXPECT_EQ(CopyOf(source, row), row.isEnough ? fs::dst_open_failed : fs::no_space)
        << row.size << " into " << row.available.blockSize << " x " << row.available.blocks;
  }
}

// ----------------------------------------------------------------------------------------------------------- seconds

struct Duration {
  long long milliseconds;
  std::int32_t seconds;
  std::int32_t nanoseconds;
  bool isTaken;  // The kernel refuses what is negative.
};

constexpr long long kWrap = 4294967296000;  // 2^32 seconds.

constexpr Duration kDurations[] = {{0, 0, 0, true},
                                   {1, 0, 1000000, true},
                                   {999, 0, 999000000, true},
                                   {1000, 1, 0, true},
                                   {1001, 1, 1000000, true},
                                   {1999, 1, 999000000, true},
                                   {2147483647, 2147483, 647000000, true},
                                   {2147483648, 2147483, 648000000, true},
                                   {4294967295, 4294967, 295000000, true},
                                   {4294967296, 4294967, 296000000, true},
                                   {kWrap / 2 - 1, INT32_MAX, 999000000, true},
                                   {kWrap / 2, INT32_MIN, 0, false},
                                   {kWrap / 2 + 1001, INT32_MIN + 1, 1000000, false},
                                   {kWrap - 1, -1, 999000000, false},
                                   {kWrap, 0, 0, true},
                                   {kWrap + 5250, 5, 250000000, true},
                                   {3 * kWrap + 7001, 7, 1000000, true},
                                   {-1, 0, -1000000, false},
                                   {-999, 0, -999000000, false},
                                   {-1000, -1, 0, false},
                                   {-1001, -1, -1000000, false},
                                   {-kWrap / 2, INT32_MIN, 0, false},
                                   {-kWrap / 2 - 1, INT32_MIN, -1000000, false},
                                   {-kWrap / 2 - 1000, INT32_MAX, 0, true},
                                   {-kWrap + 7000, 7, 0, true},
                                   {-kWrap, 0, 0, true},
                                   {-kWrap - 1, 0, -1000000, false},
                                   {LLONG_MAX, -1511828489, 807000000, false},
                                   {LLONG_MAX - kWrap / 2, 635655159, 807000000, true},
                                   {LLONG_MIN, 1511828489, -808000000, false}};

void ExpectTime(const timespec& time, std::int32_t seconds, std::int32_t nanoseconds) {
  EXPECT_EQ(time.tv_sec, seconds);
  EXPECT_EQ(time.tv_nsec, nanoseconds);
}

TEST(TimerSetTimerIn32Bits, SecondsCountModulo2To32AndNanosecondsHaveTheSignOfTheDuration) {
  net::Timer timer(net::Milliseconds(1000), false, [] {});
  for (const Duration& row : kDurations) {
    SCOPED_TRACE(row.milliseconds);
    for (const bool isPeriodic : {false, true}) {
      const CallLog log;

      EXPECT_EQ(timer.SetTimer(net::Milliseconds(row.milliseconds), isPeriodic), row.isTaken);

      const auto spec = Decode<itimerspec>(log.Of("timerfd_settime").at(0).data);
      ExpectTime(spec.it_value, row.seconds, row.nanoseconds);
      ExpectTime(spec.it_interval, isPeriodic ? row.seconds : 0, isPeriodic ? row.nanoseconds : 0);
    }
  }
}

timeval TimeoutSetBy(bool (*set)(int fd, unsigned int seconds), unsigned int seconds) {
  const CallLog log;
  const Fault fault = ReturnFrom("setsockopt", 0);
  EXPECT_TRUE(set(77, seconds));
  return Decode<timeval>(log.Of("setsockopt").at(0).data);
}

bool Drain(int fd, unsigned int seconds) {
  const Fault half = ReturnFrom("shutdown", 0);
  const Fault end = ReturnFrom("recv", 0);
  return net::DrainAndShutdown(fd, seconds);
}

TEST(SocketTimeoutIn32Bits, SecondsHaveNoSign) {
  for (const unsigned int seconds : {1U, 2147483647U, 2147483648U, 4294967295U}) {
    for (auto* const set : {net::SetRecvTimeout, net::SetSendTimeout, Drain}) {
      const timeval limit = TimeoutSetBy(set, seconds);
      EXPECT_EQ(limit.tv_sec, static_cast<std::int64_t>(seconds));
      EXPECT_EQ(limit.tv_usec, 0);
    }
  }
}

// ------------------------------------------------------------------------------------------------------ status codes

TEST(HttpStatusIn32Bits, SaturatesAtTheEndsOfTheRange) {
  const struct {
    const char* text;
    int status;
  } rows[] = {{"2147483646", INT_MAX - 1},       {"2147483647", INT_MAX},
              {"2147483648", INT_MAX},           {"4294967295", INT_MAX},
              {"4294967296", INT_MAX},           {"4294967496", INT_MAX},
              {"9223372036854775807", INT_MAX},  {"9223372036854775808", INT_MAX},
              {"18446744073709551816", INT_MAX}, {"99999999999999999999999", INT_MAX},
              {"-2147483647", INT_MIN + 1},      {"-2147483648", INT_MIN},
              {"-2147483649", INT_MIN},          {"-4294967496", INT_MIN},
              {"-9223372036854775808", INT_MIN}, {"-9223372036854775809", INT_MIN}};
  for (const auto& row : rows) {
    net::HttpResponse response;
    net::ParseStatusLine("HTTP/1.1 " + std::string(row.text) + " A\r\n", response);
    EXPECT_EQ(response.status, row.status) << row.text;
  }
}

}  // namespace
}  // namespace kiv
