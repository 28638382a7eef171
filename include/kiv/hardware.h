#ifndef KIV_HARDWARE_H
#define KIV_HARDWARE_H

#include <kiv/export.h>

#include <atomic>
#include <memory>
#include <thread>

/// The hardware watchdog, which resets the machine when nobody feeds it for some time. The interface is that of
/// linux/watchdog.h and of the kernel's Documentation/watchdog/watchdog-api.rst.
namespace kiv::hardware {

/// What a Watchdog does to its device. Derive from it to stand in for the device in a test, to name another one, or to
/// decide about each ping.
///
/// Ioctl is called on the feeding thread, too, at the same time as the owner may call it: an exception from there ends
/// the program.
class KIV_EXPORT WatchdogOps {
 public:
  virtual ~WatchdogOps();

  /// Opens `path` for writing. Returns a descriptor, or -1.
  virtual int Open(const char* path) = 0;

  /// Closes what Open returned.
  virtual void Close(int fd) = 0;

  /// Makes a request of linux/watchdog.h. `arg` points to an int for WDIOC_SETTIMEOUT and WDIOC_SETOPTIONS, and is null
  /// for WDIOC_KEEPALIVE. Returns 0 on success.
  virtual int Ioctl(int fd, unsigned long request, void* arg) = 0;
};

/// The system calls open(2), close(2) and ioctl(2).
class KIV_EXPORT RealWatchdogOps : public WatchdogOps {
 public:
  /// Opens `path` write-only, without close-on-exec. Returns the descriptor, or -1 with errno.
  int Open(const char* path) override;

  void Close(int fd) override;

  /// Returns what ioctl(2) returns, with its errno.
  int Ioctl(int fd, unsigned long request, void* arg) override;
};

/// Arms the watchdog device, feeds it once a second from a thread of its own, and disarms it.
///
/// The thread feeds as long as the process runs, whatever the rest of the program does: to have a program that hangs
/// reset the machine, give it a WatchdogOps that refuses the ping then, as examples/statusd/ does. The thread has the
/// signal mask of the thread that calls Start: block first what the loop is to receive.
///
/// Everything belongs to the owner's thread, but for KeepAlive, SetTimeout and Enable, which are as thread-safe as the
/// operations.
class KIV_EXPORT Watchdog {
 public:
  /// The device, "/dev/watchdog".
  static constexpr char kWdtFile[] = "/dev/watchdog";

  /// Opens the device; most drivers count from here on, and nothing is armed or fed before Start.
  ///
  /// `timeout` is in seconds. `ops` stays the caller's and must outlive this object; null means the real device. When
  /// the device cannot be opened, with errno as Open left it, nothing here reaches it later.
  Watchdog(int timeout, WatchdogOps* ops);

  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  /// Stops as Stop does, which may take a second, and closes the device. One that was never started is not disarmed:
  /// a driver that counts from opening on then resets the machine, unless somebody else feeds it.
  ~Watchdog();

  /// Sets the timeout, arms the card and starts to feed it, the first time after a second; a device that refuses is
  /// ignored. Does nothing when it is running. Throws std::system_error when there can be no thread, or std::bad_alloc;
  /// call Stop then, or destroy the object, which disarms.
  void Start();

  /// Feeds the card once. Returns false when there is no device or it refuses, with errno as Ioctl left it.
  bool KeepAlive();

  /// Arms the card, or disarms it. Returns false when there is no device or it refuses, with errno as Ioctl left it.
  bool Enable(bool on);

  /// Asks for another timeout, in seconds, which the driver may round; the next Start asks for that of the constructor
  /// again. Returns false when there is no device or it refuses, with errno as Ioctl left it.
  bool SetTimeout(int seconds);

  /// Ends the feeding, which takes up to a second and may feed once more, and disarms the card; a driver that cannot be
  /// disarmed goes on counting. Does nothing when it is not running. Start may be called again.
  void Stop();

 private:
  void Feed();

  static RealWatchdogOps mDefaultOps;

  int mTimeout;
  WatchdogOps* mOps;
  int mFd = -1;
  std::atomic<bool> mRunning{false};
  std::thread mThread;
};

/// A watchdog that is fed from construction to destruction. It does not tell whether there is a device, and whether the
/// device obeys: use Watchdog where that matters.
class KIV_EXPORT WatchdogRaii {
 public:
  /// Makes a Watchdog of these arguments and starts it. Throws std::system_error when there can be no thread, or
  /// std::bad_alloc, with the device disarmed and closed again.
  WatchdogRaii(int timeout, WatchdogOps* ops);

  WatchdogRaii(const WatchdogRaii&) = delete;
  WatchdogRaii& operator=(const WatchdogRaii&) = delete;

  /// Stops and disarms, which may take a second, and closes the device.
  ~WatchdogRaii();

 private:
  std::unique_ptr<Watchdog> mWatchdog;
};

}  // namespace kiv::hardware

#endif  // KIV_HARDWARE_H
