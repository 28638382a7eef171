#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <linux/loop.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "interpose.h"
#include "tests/child.h"
#include "tests/support.h"

// No loop device is touched here: the descriptors are eventfds, and every ioctl is answered by a Fault.
namespace kiv::fs {
namespace {

using test::CallLog;
using test::CallRecord;
using test::CountOpenFds;
using test::EventFd;
using test::FailCall;
using test::Fault;
using test::ReturnFrom;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

constexpr char kImage[] = "/image";

enum Step { kOpenControl, kGetFree, kOpenImage, kOpenDevice, kSetFd, kSetStatus, kAll };

// Answers the steps of one construction before `failing`, and makes that one fail.
class InventedDriver {
 public:
  explicit InventedDriver(Step failing = kAll, int error = 0, int number = 7) {
    Answer(kOpenControl, failing, "open", 1, error);
    AnswerWith(kGetFree, failing, "ioctl", 1, error, number);
    Answer(kOpenImage, failing, "open", 2, error);
    Answer(kOpenDevice, failing, "open", 3, error);
    AnswerWith(kSetFd, failing, "ioctl", 2, error, 0);
    AnswerWith(kSetStatus, failing, "ioctl", 3, error, 0);
  }

 private:
  void Answer(Step step, Step failing, const char* call, unsigned nth, int error) {
    AnswerWith(step, failing, call, nth, error, step < failing ? EventFd(0).Release() : -1);
  }
  void AnswerWith(Step step, Step failing, const char* call, unsigned nth, int error, int result) {
    if (step < failing) {
      mFaults[step].emplace(call, result, 0, nth);
    } else if (step == failing) {
      mFaults[step].emplace(call, -1, error, nth);
    }
  }

  std::optional<Fault> mFaults[kAll];
};

LoopDevice Attached(int number = 7) {
  const InventedDriver driver(kAll, 0, number);
  return {kImage, 0};
}

// Answers the LOOP_CLR_FD of one Close.
Fault AnswerDetach() { return ReturnFrom("ioctl", 0); }

// Without the descriptors, which differ from run to run.
std::vector<Args> Requests(const CallLog& log) {
  std::vector<Args> requests;
  for (const CallRecord& call : log.Of("ioctl")) {
    requests.emplace_back(call.args.begin() + 1, call.args.end());
  }
  return requests;
}

TEST(LoopDeviceCreation, MakesTheseCallsInThisOrder) {
  const InventedDriver driver;
  CallLog log;
  LoopDevice device(kImage, 512);
  const Names names = log.Names();
  const std::vector<CallRecord> opened = log.Of("open");
  const Fault detach = AnswerDetach();

  EXPECT_EQ(names, (Names{"open", "ioctl", "close", "open", "open", "ioctl", "ioctl", "close"}));
  ASSERT_EQ(opened.size(), 3U);
  EXPECT_EQ(opened[0].data, "/dev/loop-control");
  EXPECT_EQ(opened[1].data, kImage);
  EXPECT_EQ(opened[2].data, "/dev/loop7");
  for (const CallRecord& call : opened) {
    EXPECT_EQ(call.args, (Args{O_RDWR, 0})) << call.data;
  }
  EXPECT_TRUE(device.IsValid());
  EXPECT_EQ(device.GetPath(), "/dev/loop7");
  device.Close();
}

TEST(LoopDeviceCreation, SaysNothingWhenItFails) {
  EXPECT_EQ(test::OutputOf([] {
              for (const Step failing : {kOpenControl, kGetFree, kOpenImage, kOpenDevice, kSetFd, kSetStatus}) {
                const InventedDriver driver(failing, EIO);
                const LoopDevice device(kImage, 0);
              }
            }),
            "");
}

// A daemon that was started without a standard input gets such a number.
TEST(LoopDeviceCreation, TakesADescriptorWithTheNumber0) {
  EXPECT_TRUE(test::IsTrueInChild([] {
    const int control = EventFd(0).Release();
    const int image = EventFd(0).Release();
    (void)::close(STDIN_FILENO);
    (void)EventFd(0).Release();  // Takes the number.
    const Fault faults[] = {{"open", control, 0, 1}, {"open", image, 0, 2}, {"open", STDIN_FILENO, 0, 3},
                            {"ioctl", 3, 0, 1},      {"ioctl", 0, 0, 2},    {"ioctl", 0, 0, 3},
                            {"ioctl", 0, 0, 4}};
    const CallLog log;
    LoopDevice device(kImage, 0);
    const bool isAttached = device.IsValid() && test::IsOpen(STDIN_FILENO);
    device.Close();
    return isAttached && log.Of("ioctl").size() == 4 && !test::IsOpen(STDIN_FILENO) && !device.IsValid();
  }));
}

TEST(LoopDeviceCreation, HandsEachCallItsDescriptor) {
  const int control = EventFd(0).Release();
  const int image = EventFd(0).Release();
  const int opened = EventFd(0).Release();
  const Fault faults[] = {{"open", control, 0, 1}, {"open", image, 0, 2}, {"open", opened, 0, 3}, {"ioctl", 3, 0, 1},
                          {"ioctl", 0, 0, 2},      {"ioctl", 0, 0, 3},    {"ioctl", 0, 0, 4}};
  const CallLog log;
  {
    const LoopDevice device(kImage, 0);
    EXPECT_TRUE(test::IsOpen(opened));
    EXPECT_FALSE(test::IsOpen(image));
  }

  const std::vector<CallRecord> requests = log.Of("ioctl");
  ASSERT_EQ(requests.size(), 4U);
  EXPECT_EQ(requests[0].args, (Args{control, LOOP_CTL_GET_FREE}));
  EXPECT_EQ(requests[1].args, (Args{opened, LOOP_SET_FD, image}));
  EXPECT_EQ(requests[2].args, (Args{opened, LOOP_SET_STATUS64}));
  EXPECT_EQ(requests[3].args, (Args{opened, LOOP_CLR_FD, 0}));
  const std::vector<CallRecord> closes = log.Of("close");
  ASSERT_EQ(closes.size(), 3U);
  EXPECT_EQ(closes[0].args, Args{control});
  EXPECT_EQ(closes[1].args, Args{image});
  EXPECT_EQ(closes[2].args, Args{opened});
}

TEST(LoopDeviceCreation, SetsTheOffsetAloneWithoutItsSign) {
  for (const unsigned int offset : {0U, 512U, 0x80000000U, 0xFFFFFFFFU}) {
    SCOPED_TRACE(offset);
    const InventedDriver driver;
    const CallLog log;
    LoopDevice device(kImage, offset);
    const Fault detach = AnswerDetach();

    loop_info64 expected{};
    expected.lo_offset = offset;
    ASSERT_EQ(log.Of("ioctl").size(), 3U);
    EXPECT_EQ(log.Of("ioctl")[2].data, test::Octets(expected));
    device.Close();
  }
}

TEST(LoopDeviceCreation, AnyNumberFromZeroOnIsADevice) {
  const std::pair<int, const char*> numbers[] = {
      {0, "/dev/loop0"}, {10, "/dev/loop10"}, {1048575, "/dev/loop1048575"}, {2147483647, "/dev/loop2147483647"}};
  for (const auto& [number, path] : numbers) {
    LoopDevice device = Attached(number);
    EXPECT_EQ(device.GetPath(), path);
    const Fault detach = AnswerDetach();
    device.Close();
  }
}

TEST(LoopDeviceCreation, PositiveResultsAreNoFailures) {
  const Fault faults[] = {{"open", EventFd(0).Release(), 0, 1},
                          {"open", EventFd(0).Release(), 0, 2},
                          {"open", EventFd(0).Release(), 0, 3},
                          {"ioctl", 3, 0, 1},
                          {"ioctl", 1, 0, 2},
                          {"ioctl", 1, 0, 3},
                          {"ioctl", 0, 0, 4}};

  const LoopDevice device(kImage, 0);

  EXPECT_TRUE(device.IsValid());
}

struct StepFailure {
  Step step;
  int error;
  Names calls;
};

const StepFailure kStepFailures[] = {
    {kOpenControl, ENOENT, {"open"}},
    {kGetFree, ENOSPC, {"open", "ioctl", "close"}},
    {kOpenImage, ENOENT, {"open", "ioctl", "close", "open"}},
    {kOpenDevice, EACCES, {"open", "ioctl", "close", "open", "open", "close"}},
    {kSetFd, EBUSY, {"open", "ioctl", "close", "open", "open", "ioctl", "close", "close"}},
};

TEST(LoopDeviceCreation, FailingStepLeavesItEmptyAndNothingOpen) {
  for (const StepFailure& failure : kStepFailures) {
    SCOPED_TRACE(failure.step);
    const std::size_t before = CountOpenFds();
    const InventedDriver driver(failure.step, failure.error);
    const CallLog log;

    const LoopDevice device(kImage, 512);

    EXPECT_EQ(errno, failure.error);
    EXPECT_FALSE(device.IsValid());
    EXPECT_EQ(device.GetPath(), "");
    EXPECT_EQ(log.Names(), failure.calls);
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST(LoopDeviceCreation, RefusedOffsetDetachesBeforeClosing) {
  const std::size_t before = CountOpenFds();
  const InventedDriver driver(kSetStatus, EINVAL);
  const Fault detach("ioctl", -1, ENXIO, 4);
  const CallLog log;

  const LoopDevice device(kImage, 511);

  EXPECT_EQ(errno, EINVAL) << "not what the detaching says";
  EXPECT_FALSE(device.IsValid());
  EXPECT_EQ(device.GetPath(), "");
  EXPECT_EQ(log.Names(),
            (Names{"open", "ioctl", "close", "open", "open", "ioctl", "ioctl", "ioctl", "close", "close"}));
  ASSERT_EQ(Requests(log).size(), 4U);
  EXPECT_EQ(Requests(log)[3], (Args{LOOP_CLR_FD, 0}));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(LoopDeviceCreation, FailingCloseHidesNoReason) {
  const InventedDriver driver(kSetFd, EBUSY);
  const Fault first = FailCall("close", EIO, 2);
  const Fault second = FailCall("close", EIO, 3);

  const LoopDevice device(kImage, 0);

  EXPECT_EQ(errno, EBUSY);
}

TEST(LoopDeviceCreation, FailingCloseOfTheOthersIsNoFailure) {
  const InventedDriver driver;
  const Fault control = FailCall("close", EIO, 1);
  const Fault image = FailCall("close", EIO, 2);
  LoopDevice device(kImage, 0);
  const Fault detach = AnswerDetach();

  EXPECT_TRUE(device.IsValid());
  device.Close();
}

TEST(LoopDeviceCreation, TakenDeviceIsNotTriedAgain) {
  const InventedDriver driver(kSetFd, EBUSY);
  const CallLog log;

  const LoopDevice device(kImage, 0);

  EXPECT_EQ(Requests(log).size(), 2U);
  EXPECT_EQ(log.Of("open").size(), 3U);
}

TEST(LoopDeviceClose, DetachesThenClosesOnce) {
  const std::size_t before = CountOpenFds();
  LoopDevice device = Attached();
  EXPECT_EQ(CountOpenFds(), before + 1);
  const Fault detach = AnswerDetach();
  const CallLog log;

  device.Close();
  device.Close();

  EXPECT_EQ(log.Names(), (Names{"ioctl", "close"}));
  EXPECT_EQ(Requests(log), (std::vector<Args>{{LOOP_CLR_FD, 0}}));
  EXPECT_FALSE(device.IsValid());
  EXPECT_EQ(device.GetPath(), "");
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(LoopDeviceClose, FailuresStillEmptyIt) {
  const std::size_t before = CountOpenFds();
  LoopDevice device = Attached();
  const Fault detach = FailCall("ioctl", EBUSY);
  const Fault close = FailCall("close", EIO);

  device.Close();

  EXPECT_FALSE(device.IsValid());
  EXPECT_EQ(device.GetPath(), "");
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(LoopDeviceDestruction, DetachesThenCloses) {
  const std::size_t before = CountOpenFds();
  std::optional<LoopDevice> device(Attached());
  const Fault detach = AnswerDetach();
  const CallLog log;

  device.reset();

  EXPECT_EQ(log.Names(), (Names{"ioctl", "close"}));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(LoopDeviceMove, MovedFromObjectDetachesNothing) {
  std::optional<LoopDevice> source(Attached(3));
  const CallLog log;
  LoopDevice target(std::move(*source));
  EXPECT_EQ(source->GetPath(), "");
  EXPECT_FALSE(source->IsValid());

  source.reset();

  EXPECT_EQ(log.Names(), Names{});
  EXPECT_EQ(target.GetPath(), "/dev/loop3");
  EXPECT_TRUE(target.IsValid());
  const Fault detach = AnswerDetach();
  target.Close();
}

TEST(LoopDeviceMoveAssignment, ClosesItselfAndTakesOver) {
  const std::size_t before = CountOpenFds();
  LoopDevice source = Attached(3);
  LoopDevice target = Attached(4);
  const CallLog log;
  {
    const Fault detach = AnswerDetach();
    target = std::move(source);
  }

  EXPECT_EQ(log.Names(), (Names{"ioctl", "close"}));
  EXPECT_EQ(target.GetPath(), "/dev/loop3");
  EXPECT_TRUE(target.IsValid());
  EXPECT_EQ(source.GetPath(), "");
  EXPECT_FALSE(source.IsValid());
  EXPECT_EQ(CountOpenFds(), before + 1);
  const Fault detach = AnswerDetach();
  target.Close();
}

TEST(LoopDeviceMoveAssignment, FromAnEmptyOneDetaches) {
  LoopDevice empty = [] {
    const InventedDriver driver(kOpenControl, ENOENT);
    return LoopDevice(kImage, 0);
  }();
  LoopDevice target = Attached();
  const Fault detach = AnswerDetach();

  target = std::move(empty);

  EXPECT_FALSE(target.IsValid());
  EXPECT_EQ(target.GetPath(), "");
}

TEST(LoopDeviceMoveAssignment, ToItselfDoesNothing) {
  LoopDevice device = Attached(3);
  LoopDevice& same = device;
  {
    const CallLog log;
    device = std::move(same);
    EXPECT_EQ(log.Names(), Names{});
  }

  EXPECT_EQ(device.GetPath(), "/dev/loop3");
  const Fault detach = AnswerDetach();
  device.Close();
}

}  // namespace
}  // namespace kiv::fs
