#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/hardware.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "internal/unique_fd.h"
#include "interpose.h"
#include "tests/child.h"
#include "tests/support.h"

// No watchdog is touched here, whether the machine has one or not: the calls that would open it are answered.
namespace kiv::hardware {
namespace {

using internal::UniqueFd;
using test::CallLog;
using test::CallRecord;
using test::CountOpenFds;
using test::EventFd;
using test::FailCall;
using test::Fault;
using test::ReturnFrom;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

// A file in memory that takes the place of the device: the next open gives it, and it keeps what is written to it.
class InventedDevice {
 public:
  InventedDevice()
      : mFile(::memfd_create("watchdog", MFD_CLOEXEC)),
        mDescriptor(::dup(mFile.Get())),
        mOpening(ReturnFrom("open", mDescriptor)) {}

  int Descriptor() const { return mDescriptor; }
  std::string Written() const { return test::ReadFile("/proc/self/fd/" + std::to_string(mFile.Get())); }

 private:
  UniqueFd mFile;
  int mDescriptor;
  Fault mOpening;
};

// Notes what is asked without taking memory, and without any device.
class NotingOps : public WatchdogOps {
 public:
  NotingOps() { mCalls.reserve(64); }

  int Open(const char*) override { return Note("open"); }
  void Close(int) override { (void)Note("close"); }
  int Ioctl(int, unsigned long request, void* arg) override {
    if (request != WDIOC_SETOPTIONS) {
      return Note(request == WDIOC_SETTIMEOUT ? "timeout" : "ping");
    }
    return Note(*static_cast<int*>(arg) == WDIOS_ENABLECARD ? "arm" : "disarm");
  }

  // Without the pings.
  Names Calls() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    Names names;
    for (const char* call : mCalls) {
      if (call != std::string("ping")) {
        names.emplace_back(call);
      }
    }
    return names;
  }

 private:
  int Note(const char* call) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mCalls.push_back(call);
    return 0;
  }

  mutable std::mutex mMutex;
  std::vector<const char*> mCalls;
};

// The real operations, with pings that can be waited for.
class CountingOps : public RealWatchdogOps {
 public:
  int Ioctl(int fd, unsigned long request, void* arg) override {
    const int result = RealWatchdogOps::Ioctl(fd, request, arg);
    const std::lock_guard<std::mutex> lock(mMutex);
    mPings += request == WDIOC_KEEPALIVE ? 1 : 0;
    mChanged.notify_all();
    return result;
  }

  // False when there is none in a minute.
  bool WaitForPing() {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(60), [this] { return mPings > 0; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  int mPings = 0;
};

TEST(RealWatchdogOpsOpen, OpensForWritingAndAsksForNothingElse) {
  const InventedDevice device;
  RealWatchdogOps ops;
  const CallLog log;

  const UniqueFd fd(ops.Open("/dev/other"));

  EXPECT_EQ(fd.Get(), device.Descriptor());
  ASSERT_EQ(log.Names(), Names{"open"});
  EXPECT_EQ(log.Of("open")[0].data, "/dev/other");
  EXPECT_EQ(log.Of("open")[0].args, (Args{O_WRONLY, 0}));
}

TEST(RealWatchdogOpsOpen, GivesAWriteOnlyDescriptorThatIsInherited) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/file";
  test::WriteFile(path, "as it was");
  RealWatchdogOps ops;

  const UniqueFd fd(ops.Open(path.c_str()));

  EXPECT_EQ(::fcntl(fd.Get(), F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK), O_WRONLY);
  EXPECT_EQ(::fcntl(fd.Get(), F_GETFD), 0);
  EXPECT_EQ(test::ReadFile(path), "as it was");
}

TEST(RealWatchdogOpsOpen, FailureIsMinusOneWithItsErrnoAndMakesNothing) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/none";
  RealWatchdogOps ops;

  EXPECT_EQ(ops.Open(path.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(test::Exists(path));

  const Fault busy = FailCall("open", EBUSY);
  const CallLog log;
  EXPECT_EQ(ops.Open("/dev/watchdog"), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(log.Names(), Names{"open"}) << "not tried again";
}

TEST(RealWatchdogOpsClose, ClosesOnceWhateverItSays) {
  for (const int error : {0, EINTR, EIO}) {
    const int fd = EventFd(0).Release();
    RealWatchdogOps ops;
    const Fault fault("close", error == 0 ? 0 : -1, error, 1);
    const CallLog log;

    ops.Close(fd);

    EXPECT_EQ(errno, error);
    ASSERT_EQ(log.Names(), Names{"close"});
    EXPECT_EQ(log.Of("close")[0].args, Args{fd});
    EXPECT_FALSE(test::IsOpen(fd));
  }
}

TEST(RealWatchdogOpsIoctl, HandsOnDescriptorRequestAndArgument) {
  const UniqueFd fd = EventFd(0);
  RealWatchdogOps ops;
  const Fault answers[] = {{"ioctl", 0, 0, 1}, {"ioctl", 0, 0, 2}};
  const CallLog log;
  int value = 45;

  (void)ops.Ioctl(fd.Get(), WDIOC_SETTIMEOUT, &value);
  (void)ops.Ioctl(fd.Get(), WDIOC_KEEPALIVE, nullptr);

  ASSERT_EQ(log.Names(), (Names{"ioctl", "ioctl"}));
  EXPECT_EQ(log.Of("ioctl")[0].args, (Args{fd.Get(), WDIOC_SETTIMEOUT}));
  EXPECT_EQ(log.Of("ioctl")[0].data, test::Octets(45));
  EXPECT_EQ(log.Of("ioctl")[1].args, (Args{fd.Get(), WDIOC_KEEPALIVE, 0}));
}

TEST(RealWatchdogOpsIoctl, GivesWhatTheKernelGives) {
  const auto [near, far] = test::SocketPair();
  ASSERT_EQ(::write(far.Get(), "abc", 3), 3);
  RealWatchdogOps ops;
  int waiting = 0;

  EXPECT_EQ(ops.Ioctl(near.Get(), FIONREAD, &waiting), 0);
  EXPECT_EQ(waiting, 3);
  EXPECT_EQ(ops.Ioctl(-1, FIONREAD, &waiting), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(RealWatchdogOpsIoctl, PassesOnAnyResultAndErrno) {
  const UniqueFd fd = EventFd(0);
  RealWatchdogOps ops;
  for (const Fault& fault :
       {Fault("ioctl", -1, EINTR, 1), Fault("ioctl", -1, EOPNOTSUPP, 2), Fault("ioctl", 5, 0, 3)}) {
    const CallLog log;
    EXPECT_EQ(ops.Ioctl(fd.Get(), WDIOC_KEEPALIVE, nullptr), fault.Result());
    EXPECT_EQ(errno, fault.Error());
    EXPECT_EQ(log.Names(), Names{"ioctl"});
  }
}

TEST(WatchdogOfTheRealDevice, OpensItOnceMakesTheRequestsAndCloses) {
  const std::size_t before = CountOpenFds();
  const InventedDevice device;
  const Fault answers[] = {{"ioctl", 0, 0, 1}, {"ioctl", 0, 0, 2}, {"ioctl", 0, 0, 3}, {"ioctl", 0, 0, 4}};
  const CallLog log;
  {
    Watchdog watchdog(30, nullptr);
    EXPECT_TRUE(watchdog.SetTimeout(45) && watchdog.Enable(true) && watchdog.KeepAlive() && watchdog.Enable(false));
  }

  const long long fd = device.Descriptor();
  EXPECT_EQ(log.Names(), (Names{"open", "ioctl", "ioctl", "ioctl", "ioctl", "close"}));
  EXPECT_EQ(log.Of("open").at(0).data, "/dev/watchdog");
  EXPECT_EQ(log.Of("open").at(0).args, (Args{O_WRONLY, 0}));
  const std::vector<CallRecord> requests = log.Of("ioctl");
  ASSERT_EQ(requests.size(), 4U);
  EXPECT_EQ(requests[0].args, (Args{fd, WDIOC_SETTIMEOUT}));
  EXPECT_EQ(requests[0].data, test::Octets(45));
  EXPECT_EQ(requests[1].args, (Args{fd, WDIOC_SETOPTIONS}));
  EXPECT_EQ(requests[1].data, test::Octets(static_cast<int>(WDIOS_ENABLECARD)));
  EXPECT_EQ(requests[2].args, (Args{fd, WDIOC_KEEPALIVE, 0}));
  EXPECT_EQ(requests[3].args, (Args{fd, WDIOC_SETOPTIONS}));
  EXPECT_EQ(requests[3].data, test::Octets(static_cast<int>(WDIOS_DISABLECARD)));
  EXPECT_EQ(log.Of("close").at(0).args, Args{fd});
  EXPECT_EQ(CountOpenFds(), before + 1) << "but for the file behind it";
}

TEST(WatchdogOfTheRealDevice, ThatRefusesEverythingIsFedDisarmedAndClosed) {
  const InventedDevice device;
  CountingOps ops;
  const CallLog log;
  {
    Watchdog watchdog(30, &ops);
    watchdog.Start();
    EXPECT_TRUE(ops.WaitForPing());
    EXPECT_FALSE(watchdog.KeepAlive());
  }

  EXPECT_EQ(log.Names(), (Names{"open", "ioctl", "ioctl", "pthread_create", "ioctl", "ioctl", "close"}));
}

TEST(WatchdogOfTheRealDevice, IsNeverWrittenTo) {
  const InventedDevice device;
  CountingOps ops;
  const CallLog log;
  {
    const WatchdogRaii guard(30, &ops);
    EXPECT_TRUE(ops.WaitForPing());
  }
  EXPECT_EQ(log.Of("write").size(), 0U);
  EXPECT_EQ(device.Written(), "") << "nor by the thread that feeds it";
}

TEST(WatchdogOfTheRealDevice, ThatCannotBeOpenedIsLeftAlone) {
  for (const int error : {ENOENT, EBUSY, EACCES, EINTR}) {
    const std::size_t before = CountOpenFds();
    const Fault fault = FailCall("open", error);
    const CallLog log;
    {
      Watchdog watchdog(30, nullptr);
      EXPECT_EQ(errno, error);
      watchdog.Start();
      EXPECT_FALSE(watchdog.SetTimeout(5) || watchdog.Enable(true) || watchdog.Enable(false) || watchdog.KeepAlive());
    }

    EXPECT_EQ(log.Names(), (Names{"open", "pthread_create"}));
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST(WatchdogOfTheRealDevice, RefusedRequestsAreFalseWithTheirErrnoAndNotRepeated) {
  const InventedDevice device;
  Watchdog watchdog(30, nullptr);
  const Fault faults[] = {{"ioctl", -1, EINTR, 1}, {"ioctl", -1, EOPNOTSUPP, 2}, {"ioctl", -1, EIO, 3}};
  const CallLog log;

  EXPECT_FALSE(watchdog.SetTimeout(5));
  EXPECT_EQ(errno, EINTR);
  EXPECT_FALSE(watchdog.Enable(true));
  EXPECT_EQ(errno, EOPNOTSUPP);
  EXPECT_FALSE(watchdog.KeepAlive());
  EXPECT_EQ(errno, EIO);

  EXPECT_EQ(log.Names(), (Names{"ioctl", "ioctl", "ioctl"}));
}

TEST(WatchdogOfTheRealDevice, SaysNothingWhenEverythingFails) {
  EXPECT_EQ(test::OutputOf([] {
              {
                const Fault fault = FailCall("open", ENOENT);
                const WatchdogRaii guard(30, nullptr);
              }
              const InventedDevice device;
              CountingOps ops;
              const WatchdogRaii guard(30, &ops);
              (void)ops.WaitForPing();
            }),
            "");
}

TEST(WatchdogWithoutAThread, StartThrowsAndStopDisarms) {
  NotingOps ops;
  Watchdog watchdog(30, &ops);
  {
    const Fault fault = FailCall("pthread_create", EAGAIN);
    EXPECT_THROW(watchdog.Start(), std::system_error);
  }
  EXPECT_EQ(ops.Calls(), (Names{"open", "timeout", "arm"}));

  watchdog.Stop();

  EXPECT_EQ(ops.Calls(), (Names{"open", "timeout", "arm", "disarm"}));
}

TEST(WatchdogWithoutAThread, DestructionDisarmsAndCloses) {
  NotingOps ops;
  {
    Watchdog watchdog(30, &ops);
    const Fault fault = FailCall("pthread_create", EAGAIN);
    EXPECT_THROW(watchdog.Start(), std::system_error);
  }

  EXPECT_EQ(ops.Calls(), (Names{"open", "timeout", "arm", "disarm", "close"}));
}

TEST(WatchdogWithoutAThread, StartsAgainAfterStopOnly) {
  NotingOps ops;
  Watchdog watchdog(30, &ops);
  const CallLog log;
  {
    const Fault fault = FailCall("pthread_create", EAGAIN);
    EXPECT_THROW(watchdog.Start(), std::system_error);
  }

  watchdog.Start();
  EXPECT_EQ(ops.Calls(), (Names{"open", "timeout", "arm"})) << "it counts as running";
  watchdog.Stop();
  watchdog.Start();

  EXPECT_EQ(ops.Calls(), (Names{"open", "timeout", "arm", "disarm", "timeout", "arm"}));
  EXPECT_EQ(log.Of("pthread_create").size(), 2U);
}

TEST(WatchdogRaiiWithoutAThread, ThrowsWithTheDeviceDisarmedAndClosed) {
  NotingOps ops;
  const Fault fault = FailCall("pthread_create", EAGAIN);

  EXPECT_THROW(WatchdogRaii(30, &ops), std::system_error);

  EXPECT_EQ(ops.Calls(), (Names{"open", "timeout", "arm", "disarm", "close"}));
}

TEST(WatchdogRaiiWithoutMemory, ThrowsWithTheDeviceDisarmedAndClosed) {
  NotingOps forItself;
  NotingOps forTheThread;
  {
    const Fault fault = FailCall("new", 0, 1);
    EXPECT_THROW(WatchdogRaii(30, &forItself), std::bad_alloc);
  }
  {
    const Fault fault = FailCall("new", 0, 2);
    EXPECT_THROW(WatchdogRaii(30, &forTheThread), std::bad_alloc);
  }

  EXPECT_EQ(forItself.Calls(), Names{});
  EXPECT_EQ(forTheThread.Calls(), (Names{"open", "timeout", "arm", "disarm", "close"}));
}

}  // namespace
}  // namespace kiv::hardware
