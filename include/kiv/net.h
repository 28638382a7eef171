#ifndef KIV_NET_H
#define KIV_NET_H

#include <kiv/export.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

/// Event loop, sockets, network configuration and HTTP. Failures are return values; errno stays as the failing system
/// call set it. Descriptors passed in by the caller are never closed by the library.
namespace kiv::net {

// ---------------------------------------------------------------------------------------------------- event loop

/// Holds a set of descriptors for poll(2), with constant-time lookup by descriptor.
///
/// Closes nothing: descriptors stay the caller's, and must be removed before they are closed. A copy is an independent
/// set. Belongs to one thread.
class KIV_EXPORT Poller {
 public:
  /// Appends `fd` with the poll events wanted (POLLIN, POLLOUT, ...). Add a descriptor once only: a second entry hides
  /// the first, which stays in the set and cannot be named any more.
  void Add(int fd, short events);

  /// Replaces the events wanted of `fd`; its result of the last Wait stays. Does nothing for an unknown descriptor.
  void Modify(int fd, short events);

  /// Removes `fd` in constant time: the last entry takes its place. Does nothing for an unknown descriptor.
  void Remove(int fd);

  /// Waits until a descriptor is ready, for `timeout` milliseconds at most; -1 waits without limit, 0 only looks.
  ///
  /// Returns the number of ready descriptors, 0 on time-out, -1 on failure with errno of poll(2), EINTR included (it is
  /// not retried). Returns 0 at once, whatever the time-out, when the set is empty.
  int Wait(int timeout);

  /// Tells whether the last Wait reported any of `events` for `fd`; false for an unknown descriptor.
  bool IsReady(int fd, short events) const;

 private:
  friend class EventLoop;

  const pollfd* Find(int fd) const;

  std::vector<pollfd> mEntries;
  std::unordered_map<int, std::size_t> mIndex;
};

/// Base of everything an EventLoop dispatches: one object watches one descriptor.
class KIV_EXPORT EventHandler {
 public:
  EventHandler() = default;
  EventHandler(const EventHandler&) = delete;
  EventHandler& operator=(const EventHandler&) = delete;
  virtual ~EventHandler();

  /// Handles readiness. `revents` is what poll(2) reported for `fd`, POLLERR, POLLHUP and POLLNVAL included: the loop
  /// gives these no treatment of its own and never removes a handler by itself. Runs on the loop thread. A handler may
  /// remove itself here through EventLoop::RemoveHandler; the object is then gone when that call returns.
  virtual void OnEvent(int fd, short revents) = 0;

  /// Returns the descriptor to watch. Read once, when the handler is added.
  virtual int GetFd() = 0;

  /// Returns the poll events wanted. Read when the handler is added and at EventLoop::UpdateHandler. The default is
  /// POLLIN | POLLERR | POLLHUP.
  virtual short GetEvents();

 protected:
  EventHandler(EventHandler&&) noexcept = default;
  EventHandler& operator=(EventHandler&&) noexcept = default;
};

/// Durations of timers: signed 64-bit milliseconds. Whole std::chrono milliseconds, seconds, minutes, ... convert.
using Milliseconds = std::chrono::duration<long long, std::milli>;

/// Owns a timerfd on CLOCK_MONOTONIC and calls a function when it expires. EventLoop::AddTimer makes these; a program
/// that wants to re-arm a timer makes its own and hands it to EventLoop::AddHandler.
class KIV_EXPORT Timer : public EventHandler {
 public:
  /// Creates the timerfd (non-blocking, close-on-exec) and starts it. When the descriptor cannot be made, GetFd gives
  /// -1; when the kernel refuses the duration, the timer exists and never fires.
  Timer(Milliseconds duration, bool periodic, std::function<void()> callback);
  Timer(Timer&& other) noexcept;
  Timer& operator=(Timer&& other) noexcept;
  ~Timer() override;

  /// Restarts the countdown from now; with `periodic` it repeats at the same interval. Changes nothing of what
  /// SetPeriodic and SetOneShot record. Returns whether the kernel accepted the setting (timerfd_settime(2) gives
  /// errno).
  ///
  /// A duration of 0 stops the timer. Whole seconds are cut to a signed 32-bit number, as on a 32-bit device, and the
  /// kernel refuses a negative result: 2^31 seconds are refused, 2^32 seconds and one more count as one.
  bool SetTimer(Milliseconds duration, bool periodic);

  /// Makes the timer periodic and restarts it; returns as SetTimer.
  bool SetPeriodic(Milliseconds duration);

  /// Makes the timer fire once and restarts it; returns as SetTimer.
  bool SetOneShot(Milliseconds duration);

  /// Does not stop the timer: the schedule stays as it is. Use SetOneShot with a duration of 0, or
  /// EventLoop::RemoveTimer, to stop one.
  void Cancel();

  /// Reads the expiration count of the timer's own descriptor and calls the callback once, however many periods passed.
  /// The callback may remove or destroy this timer.
  void OnEvent(int fd, short revents) override;

  /// Returns the timerfd, still owned by the timer, or -1.
  int GetFd() override;

  /// Returns POLLIN.
  short GetEvents() override;

 private:
  // The last two only record what was asked for and whether it began; the kernel keeps the schedule.
  int mFd = -1;
  std::function<void()> mCallback;
  bool mPeriodic = false;
  bool mArmed = false;
};

/// Owns a signalfd for one signal and calls a function with the signal number when it arrives. The signal must be
/// blocked (EventLoop::BlockSignals), or the descriptor never sees it.
class KIV_EXPORT SignalHandler : public EventHandler {
 public:
  /// Creates the signalfd (blocking, close-on-exec). When that fails, GetFd gives -1.
  SignalHandler(int signo, std::function<void(int)> callback);
  SignalHandler(SignalHandler&& other) noexcept;
  SignalHandler& operator=(SignalHandler&& other) noexcept;
  ~SignalHandler() override;

  /// Reads one signal record and calls the callback with the number. Blocks when no signal is pending. The callback may
  /// remove or destroy this handler.
  void OnEvent(int fd, short revents) override;

  /// Returns the signalfd, still owned by the handler, or -1.
  int GetFd() override;

  /// Returns POLLIN.
  short GetEvents() override;

 private:
  int mFd = -1;
  int mSigno = 0;
  std::function<void(int)> mCallback;
  bool mValid = false;
};

/// Waits on many descriptors with poll(2) and calls the handler whose descriptor became ready.
///
/// One thread runs the loop, and every handler, timer, signal callback and deferred call runs on it. Only Defer and
/// Stop may be called from other threads; everything else belongs to the loop thread, or comes before Run. A thread
/// that calls Defer or Stop must have returned from it before the loop is destroyed.
///
/// Destruction destroys the handlers (each closes the descriptor it owns) and drops deferred calls without running
/// them.
class KIV_EXPORT EventLoop {
 public:
  /// Creates the loop's wakeup eventfd. Calls abort() when that fails: a daemon without its loop has nothing to do.
  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// Takes ownership of `handler` and watches its descriptor, from the next pass on. A null pointer, a negative
  /// descriptor and a descriptor that has a handler already are refused silently: the new handler is destroyed.
  void AddHandler(std::unique_ptr<EventHandler> handler);

  /// Asks the handler of `fd` again for the events it wants, for instance to add POLLOUT while output is pending. Does
  /// nothing for an unknown descriptor.
  void UpdateHandler(int fd);

  /// Stops watching `fd` and destroys its handler before returning, even from inside that handler's OnEvent. A timer's
  /// id is forgotten with it; a signal's registration is not (use RemoveSignal). Does nothing for an unknown
  /// descriptor.
  void RemoveHandler(int fd);

  /// Calls `callback` on the loop thread once, `duration` from now. Returns the timer's id, or 0 when `callback` is
  /// empty, `duration` is negative or no timerfd can be had. Ids count up from 1 and wrap after 2^32 timers.
  ///
  /// A duration of 0 gives a timer that never fires. A timer that has fired keeps its id and its descriptor until
  /// RemoveTimer; remove it to release them.
  unsigned AddTimer(Milliseconds duration, std::function<void()> callback);

  /// Calls `callback` on the loop thread every `duration`, first after one `duration`; periods missed while the loop
  /// was busy are folded into one call. Returns as AddTimer.
  unsigned AddPeriodicTimer(Milliseconds duration, std::function<void()> callback);

  /// Destroys the timer `id`, also from inside its own callback. Does nothing for 0 or an unknown id.
  void RemoveTimer(unsigned id);

  /// Calls `callback` on the loop thread with `signo` whenever that signal arrives. Does not block the signal: call
  /// BlockSignals first. A signal that is registered already keeps its first callback; failures are silent.
  void AddSignal(int signo, std::function<void(int)> callback);

  /// Undoes AddSignal. The signal stays blocked and from now on stays pending, unseen. Does nothing for an unknown one.
  void RemoveSignal(int signo);

  /// Adds `signals` to the calling thread's signal mask. Call it on the main thread before others start, so that all
  /// inherit the mask. Calls abort() when sigprocmask(2) fails.
  static void BlockSignals(std::initializer_list<int> signals);

  /// Runs deferred calls and dispatches events until Stop takes effect or poll(2) fails for a reason other than EINTR;
  /// then runs the deferred calls left and returns. May be called again. What a handler throws passes through.
  void Run();

  /// Dispatches what the last wait reported, one pass. Run calls it; a program has no need to.
  void ProcessEvents();

  /// Resets the wakeup eventfd. Run calls it; a program has no need to.
  void ProcessWakeup();

  /// Queues `call` to run on the loop thread and wakes the loop. Calls of one thread run in the order posted; a call
  /// posted by a deferred call runs in the next pass. An empty function is ignored. Any thread; never blocks on the
  /// loop.
  void Defer(std::function<void()> call);

  /// Runs the deferred calls queued so far, in posting order. Run calls it; a program has no need to.
  void ProcessDeferred();

  /// Makes Run return, after all calls deferred before this one. Before Run, it ends the coming Run after the deferred
  /// calls. Any thread.
  void Stop();

 private:
  unsigned AddTimerHandler(Milliseconds duration, bool periodic, std::function<void()> callback);
  void Dispatch(int fd, short revents);

  Poller mPoller;
  std::unordered_map<int, std::unique_ptr<EventHandler>> mHandlers;
  std::unordered_map<int, int> mSignals;
  std::unordered_map<unsigned, int> mTimers;
  std::unordered_map<int, unsigned> mTimerFds;
  unsigned mNextTimerId = 1;
  std::vector<std::function<void()>> mDeferred;
  std::atomic<bool> mRunning{true};
  int mWakeupFd = -1;
  std::mutex mMutex;
};

/// Turns one signal into a readable descriptor in a Poller, for programs that run their own loop.
///
/// The constructor blocks the signal on the calling thread, the destructor restores the whole mask of before. Construct
/// and destroy watchers on one thread, in opposite orders: each restores the mask that it found. The poller must
/// outlive the watcher.
class KIV_EXPORT SignalWatcher {
 public:
  /// Blocks `signo`, makes a signalfd (blocking, close-on-exec) and adds it to `poller` for POLLIN. When a step fails,
  /// the mask is as before and the watcher stays inert.
  SignalWatcher(Poller& poller, int signo);

  /// As above, with a function for Handle to call; it is dropped when a step fails.
  SignalWatcher(Poller& poller, int signo, std::function<void(int)> callback);

  /// Takes everything but the callback, which stays with `other`: Handle on the new watcher reads signals and calls
  /// nothing.
  SignalWatcher(SignalWatcher&& other) noexcept;

  /// Leaves this watcher's poller and exchanges everything but the callbacks; `other` releases the old state when it is
  /// destroyed. Does nothing on self-assignment.
  SignalWatcher& operator=(SignalWatcher&& other) noexcept;
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;
  ~SignalWatcher();

  /// Reads one pending signal. Returns its number, or -1 when the watcher is inert or the read failed. Blocks when none
  /// is pending: call it after the poller reported readiness.
  int ReadSignal();

  /// Reads one pending signal and calls the callback, if there is one, with its number; the callback may destroy this
  /// watcher. Returns true in every case. Blocks as ReadSignal.
  bool Handle();

  /// Exchanges everything with `other` but the callbacks: each stays with its object.
  void Swap(SignalWatcher& other);

 private:
  SignalWatcher() noexcept;

  int mFd = -1;
  sigset_t mSavedMask;
  Poller* mPoller = nullptr;
  int mSigno = 0;
  std::function<void(int)> mCallback;
  bool mValid = false;
};

// ------------------------------------------------------------------------------------------------------- sockets

/// A unix socket address ready for bind(2) and connect(2); see unix(7) for the layout.
struct KIV_EXPORT UnixAddress {
  /// Builds the address of a file, of 107 bytes at most, or of a name in the abstract namespace, of 106 bytes at most
  /// and with NUL bytes kept. An empty or longer `path` leaves the address invalid.
  UnixAddress(const std::string& path, bool abstract);

  sockaddr_un mAddr;  ///< All zero apart from what the constructor set.
  socklen_t mLen;     ///< Length to pass with mAddr, without a terminator; 0 while invalid.
  bool mValid;        ///< Whether the constructor accepted the path.
};

/// Fills `addr` for a file or an abstract name, with the limits of UnixAddress. Returns false for an empty `path`, with
/// `addr` untouched, and for one that is too long, with `addr` zero apart from the family. Any thread.
KIV_EXPORT bool SetAddress(sockaddr_un& addr, const std::string& path, bool abstract);

/// Fills `addr` from dotted text and a port in host byte order. Returns false when inet_pton(3) refuses `ip`; family
/// and port are then written and the address is zero. "0.0.0.0" is the any-address. Any thread.
KIV_EXPORT bool SetAddress(sockaddr_in& addr, const std::string& ip, unsigned short port);

/// Returns the dotted text of `addr` and its port in host byte order. Any thread.
KIV_EXPORT std::pair<std::string, unsigned short> GetAddress(const sockaddr_in& addr);

/// Parses dotted text into a 32-bit address in network byte order. Returns false, with `out` untouched, for anything
/// inet_pton(3) refuses. Any thread.
KIV_EXPORT bool IPtoN(const std::string& ip, unsigned int& out);

/// Returns the dotted text of a 32-bit address in network byte order; the inverse of IPtoN. Any thread.
KIV_EXPORT std::string NtoIP(unsigned int addr);

/// Switches O_NONBLOCK of `fd` on or off. Returns false when `fd` is -1 or fcntl(2) fails. Any thread, as all socket
/// functions below.
KIV_EXPORT bool SetNonBlocking(int fd, bool on);

/// Bounds every later receive on `fd` to whole `seconds`; 0 means no limit. Returns false when `fd` is -1 or
/// setsockopt(2) fails.
KIV_EXPORT bool SetRecvTimeout(int fd, unsigned int seconds);

/// Bounds every later send and blocking connect on `fd` to whole `seconds`; 0 means no limit. Returns false when `fd`
/// is -1 or setsockopt(2) fails.
KIV_EXPORT bool SetSendTimeout(int fd, unsigned int seconds);

/// Allows or forbids datagrams to broadcast addresses. Returns false when `fd` is -1 or setsockopt(2) fails.
KIV_EXPORT bool EnableBroadcast(int fd, bool on);

/// Sets how many hops multicast datagrams live; only the low 8 bits of `ttl` count. Returns false when `fd` is -1 or
/// setsockopt(2) fails.
KIV_EXPORT bool SetMulticastTTL(int fd, unsigned int ttl);

/// Joins the IPv4 multicast `group` (dotted text) on the interface with index `ifindex`; 0 lets the kernel choose.
/// Returns false when `group` does not parse, without any system call, or setsockopt(2) fails. See ip(7).
KIV_EXPORT bool SubscribeMulticast(int fd, const std::string& group, unsigned int ifindex);

/// Joins `group` on the interface that has the address `ifaceAddr` (dotted text). Returns as above.
KIV_EXPORT bool SubscribeMulticast(int fd, const std::string& group, const std::string& ifaceAddr);

/// Joins `group` on the interface that the kernel picks. Returns as above.
KIV_EXPORT bool SubscribeMulticast(int fd, const std::string& group);

/// Leaves a group joined with the same form of SubscribeMulticast. Returns as that form.
KIV_EXPORT bool UnsubscribeMulticast(int fd, const std::string& group, unsigned int ifindex);
/// Leaves a group joined with the same form of SubscribeMulticast. Returns as that form.
KIV_EXPORT bool UnsubscribeMulticast(int fd, const std::string& group, const std::string& ifaceAddr);
/// Leaves a group joined with the same form of SubscribeMulticast. Returns as that form.
KIV_EXPORT bool UnsubscribeMulticast(int fd, const std::string& group);

/// Binds `fd` to a unix address. Returns false when `fd` is -1, the address is invalid or bind(2) fails.
KIV_EXPORT bool BindUnix(int fd, const UnixAddress& a);

/// Connects `fd` to a unix address, blocking as the descriptor does; EINTR is a failure. Returns false when `fd` is -1,
/// the address is invalid or connect(2) fails.
KIV_EXPORT bool ConnectUnix(int fd, const UnixAddress& a);

/// Binds `fd` to a dotted address ("0.0.0.0" for any) and a port in host byte order (0 lets the kernel choose), after
/// setting SO_REUSEADDR and SO_REUSEPORT both to `reuse`.
///
/// With `reuse`, a second socket of the same user may bind the same port: the kernel then shares the connections out.
/// Returns false when `fd` is -1, `ip` is empty or does not parse, or a system call fails; options set stay set.
KIV_EXPORT bool BindInet(int fd, const std::string& ip, unsigned short port, bool reuse);

/// Connects `fd` to `addr`, blocking as the descriptor does; EINTR is a failure. Returns false when `fd` is -1, `type`
/// is neither SOCK_DGRAM nor SOCK_STREAM, or connect(2) fails.
KIV_EXPORT bool ConnectInet(int fd, const sockaddr_in& addr, int type);

/// Resolves `host` (a name or dotted text, IPv4 only) and connects `fd` to the first of its addresses that accepts;
/// `port` is in host byte order.
///
/// Blocks while resolving, and while connecting as the descriptor does. Returns false when `fd` is -1, `host` is empty,
/// `port` is 0, `type` is neither SOCK_DGRAM nor SOCK_STREAM, nothing is found, or no address accepts.
KIV_EXPORT bool ConnectInet(int fd, const std::string& host, unsigned short port, int type);

/// Ends the sending side of `fd` and discards what the peer still sends, until it closes or has been silent for whole
/// `seconds`; with 0 nothing is read. Does not close `fd`.
///
/// The limit applies to each read: a peer that keeps sending keeps this call going. A signal (EINTR) ends it. Returns
/// false when `fd` is -1, otherwise true. Changes the receive time-out of `fd`.
KIV_EXPORT bool DrainAndShutdown(int fd, unsigned int seconds);

/// Appends to `out` everything that can be read from `fd` now, without blocking, whatever mode `fd` is in.
///
/// EINTR is retried. Returns the number of bytes appended, 0 included, whatever stopped it: an empty queue, the end of
/// the stream, or an error; to tell which, call recv(2). Datagrams come back to back, without
/// boundaries, each cut to 2048 bytes. A peer that sends faster than this reads keeps it going.
KIV_EXPORT unsigned int RecvEager(int fd, std::vector<char>& out);

/// Receives one datagram, or what a stream has, of `len` bytes at most into `buf`, and the sender's address into
/// `from`. One recvfrom(2) without flags: blocks as `fd` does, a longer datagram is cut.
///
/// Returns the number of bytes received, 0 included, or -1 with errno of recvfrom(2), EINTR too. The length of the
/// address is not told: zero `from` before the call when the sender may be unnamed or abstract.
KIV_EXPORT int RecvFrom(int fd, void* buf, unsigned int len, sockaddr_un& from);

/// Receives from an IPv4 sender; `from` has address and port in network byte order. Otherwise as above.
KIV_EXPORT int RecvFrom(int fd, void* buf, unsigned int len, sockaddr_in& from);

/// Sends `len` bytes from `buf` to the file or the abstract name in `to`. One sendto(2) without flags: blocks as `fd`
/// does, and raises SIGPIPE on a stream without a reader.
///
/// Either name ends at its first NUL byte or with the array, so an abstract name that holds NUL bytes is not reached.
/// Returns the number of bytes sent, or -1 with errno of sendto(2), EINTR too.
KIV_EXPORT int SendTo(int fd, const void* buf, unsigned int len, const sockaddr_un& to);

/// Sends to an IPv4 address and port in network byte order. Otherwise as above.
KIV_EXPORT int SendTo(int fd, const void* buf, unsigned int len, const sockaddr_in& to);

// ------------------------------------------------------------------------------------------ network configuration
//
// Everything here keeps no state and may be called from any thread. It acts on the network namespace of that thread,
// except for what is read from /sys and /proc/net, as noted there. Changes need CAP_NET_ADMIN. Each change is one
// request over a socket of its own, see rtnetlink(7): it blocks until the kernel has answered, and a signal (EINTR)
// makes it fail although the kernel may have carried it out. It returns true when the kernel acknowledged it. False
// means an argument refused here, without a request, or a request that failed; the kernel's own reason is not told.
// Interface names have 15 bytes at most, longer ones are refused.

/// Creates an interface of a link `kind`, such as "bridge" or "dummy"; the kernel decides which kinds there are, and
/// names the other end of a "veth". It starts down, without IFF_MULTICAST. Returns false, too, when `name` exists.
KIV_EXPORT bool CreateInterface(const std::string& name, const std::string& kind);

/// Deletes a virtual interface.
KIV_EXPORT bool DeleteInterface(const std::string& name);

/// Creates the VLAN interface `name` with tag `vlanId` on `parent`; the kernel decides which ids it takes. It starts
/// down, without IFF_MULTICAST. Returns false, too, when `parent` is unknown or `name` exists.
KIV_EXPORT bool AddVlan(const std::string& parent, unsigned short vlanId, const std::string& name);

/// Brings an interface up or down (IFF_UP). Going down loses the routes over it and its IPv6 addresses.
KIV_EXPORT bool SetInterfaceUp(const std::string& name, bool up);

/// Sets the MTU in bytes. The request also switches IFF_UP, IFF_MULTICAST, IFF_PROMISC and every other changeable flag
/// off, with the losses of going down: set the MTU first, then bring the interface up and add routes.
KIV_EXPORT bool SetMTU(const std::string& name, unsigned short mtu);

/// Sets the hardware address, "aa:bb:cc:dd:ee:ff" in either case. The request also switches every changeable flag off,
/// as SetMTU does. Returns false, too, when `mac` is malformed; a pair such as " a" or "+a", which strtoul(3) reads as
/// a whole, is not.
KIV_EXPORT bool SetMAC(const std::string& name, const std::string& mac);

/// Makes `name` a port of the bridge or bond `master`. Returns false, too, when `master` is unknown.
KIV_EXPORT bool SetMaster(const std::string& name, const std::string& master);

/// Takes `name` out of its bridge or bond.
KIV_EXPORT bool UnsetMaster(const std::string& name);

/// Moves `name` into the network namespace of process `pid`, where it arrives down and without addresses. Returns
/// false, too, when "/proc/PID/ns/net" does not open.
KIV_EXPORT bool MoveInterfaceToNetns(const std::string& name, int pid);

/// Moves `name` into the network namespace that `fd` refers to, such as an open "/run/netns/NAME". `fd` stays the
/// caller's. Otherwise as above.
KIV_EXPORT bool MoveInterfaceToNetnsFd(const std::string& name, int fd);

/// Switches IFF_MULTICAST.
KIV_EXPORT bool SetInterfaceMulticast(const std::string& name, bool on);

/// Switches IFF_PROMISC. The kernel counts requests for it from several sources; this is one of them.
KIV_EXPORT bool SetInterfacePromiscuous(const std::string& name, bool on);

/// Tells whether "/sys/class/net/" has an entry `name`. The name is not checked: one with a slash tests a deeper path,
/// and the empty one tests the folder. /sys shows the namespace that it was mounted in.
KIV_EXPORT bool InterfaceExists(const std::string& name);

/// Returns the kernel's index of an interface, or 0, with errno of if_nametoindex(3), when there is none.
KIV_EXPORT unsigned int GetInterfaceIndex(const std::string& name);

/// Adds an IPv4 address (dotted text) with its prefix length in bits.
///
/// The kernel is told the interface through the label alone, with index 0. Linux looks at the index alone and refuses
/// (ENODEV): docs/behaviour.md has a function that assigns addresses. Returns false, too, when `ip` is malformed or the
/// address exists.
KIV_EXPORT bool AssignAddress(const std::string& iface, const std::string& ip, unsigned char prefixLength);

/// Adds an IPv4 address with a label: `iface`, a colon, and more, 15 bytes at most in all, such as "eth0:1". An empty
/// `label` means the name of the interface. Returns false, too, for an empty `iface` and any other label; otherwise as
/// AssignAddress.
KIV_EXPORT bool AssignAddressLabeled(const std::string& iface, const std::string& ip, unsigned char prefixLength,
                                     const std::string& label);

/// Removes an IPv4 address. The kernel does not compare the prefix length, and may remove secondary addresses with
/// their primary one. Returns false, too, when `ip` is malformed, or `iface` or the address is unknown.
KIV_EXPORT bool DeleteAddress(const std::string& iface, const std::string& ip, unsigned char prefixLength);

/// Adds a route to the main table: `destination` (dotted text) with its prefix length in bits, over `gateway` on
/// `iface`. "0.0.0.0" with 0 is the default route; a gateway of "0.0.0.0" makes a route without one (on-link).
/// The kernel wants the interface up, the gateway within reach, and no bits of `destination` behind the prefix. Returns
/// false, too, when an address is malformed, `iface` is unknown, or a route to the same destination exists.
KIV_EXPORT bool AddRoute(const std::string& destination, unsigned char prefixLength, const std::string& gateway,
                         const std::string& iface);

/// Removes a route that AddRoute with the same arguments adds; a gateway of "0.0.0.0" here means any. Returns false,
/// too, when there is none.
KIV_EXPORT bool DeleteRoute(const std::string& destination, unsigned char prefixLength, const std::string& gateway,
                            const std::string& iface);

/// One IPv4 route as the kernel dumps it; see struct rtmsg in rtnetlink(7).
struct RouteEntry {
  std::string destination;         ///< Dotted text; "0.0.0.0" for a default route.
  unsigned char prefixLength = 0;  ///< In bits.
  std::string gateway;             ///< Dotted text; empty when there is none, several, or one that is not IPv4.
  std::string iface;               ///< Name of the output interface; empty when there is none, or several.
  std::uint32_t table = 0;         ///< RT_TABLE_MAIN (254), ...; tables above 255 show as RT_TABLE_COMPAT (252).
  unsigned char protocol = 0;      ///< RTPROT_KERNEL (2), RTPROT_STATIC (4), ...
  unsigned char type = 0;          ///< RTN_UNICAST (1), RTN_LOCAL (2), RTN_BROADCAST (3), ...
};

/// Returns the IPv4 routes of all tables, in the kernel's order. GetRoutingTable has the metrics, of the main table
/// only.
///
/// `family` is what the kernel is asked for, AF_INET; only IPv4 routes are returned whatever it is. Returns nothing
/// when the kernel cannot be asked, and what came so far when the dump breaks off or a signal interrupts it: the two
/// look like small tables.
KIV_EXPORT std::vector<RouteEntry> GetRoutes(unsigned char family);

/// One IPv4 address of an interface; see struct ifaddrmsg in rtnetlink(7).
struct InterfaceAddress {
  std::string address;             ///< Dotted text; of the peer on a point-to-point link.
  unsigned char prefixLength = 0;  ///< In bits.
  bool secondary = false;          ///< Whether another address of the same network came first (IFA_F_SECONDARY).
};

/// Returns the IPv4 addresses of one interface in the kernel's order; nothing for an unknown one. Fails as GetRoutes.
KIV_EXPORT std::vector<InterfaceAddress> GetInterfaceAddresses(const std::string& iface);

/// One IPv4 address of one interface, with the interface's hardware address and flags. A plain value.
class KIV_EXPORT Iface {
 public:
  /// Makes a record of these; `flags` are those of net/if.h (IFF_UP, IFF_LOOPBACK, ...).
  Iface(const std::string& name, const std::string& address, const std::string& mac, int flags);

  /// Makes a record without hardware address and flags.
  Iface(const std::string& name, const std::string& address);

  Iface(const Iface& other) = default;
  Iface& operator=(const Iface& other) = default;

  /// Leaves `other` empty, its flags 0.
  Iface(Iface&& other) noexcept;

  /// Swaps the strings and takes the flags: `other` then has this object's former strings, and flags 0. Moving an
  /// object onto itself changes nothing.
  Iface& operator=(Iface&& other) noexcept;

  ~Iface() = default;

  /// Returns the name, an alias such as "eth0:1" included.
  std::string GetName() const;

  /// Returns the IPv4 address as dotted text.
  std::string GetAddress() const;

  /// Returns the hardware address as the kernel writes it, "aa:bb:cc:dd:ee:ff", or nothing.
  std::string GetMAC() const;

  /// Tells whether every bit of `mask` is set in the flags; always true for 0.
  bool IsFlagsSet(int mask) const;

  /// Asks descriptor 1 (standard output) for the flags of this name, and stores 0 when that fails: it gives the flags
  /// only in a program whose descriptor 1 is a socket. Call GetIfaces again instead.
  ///
  /// Returns -1 when no socket can be opened (descriptor 0 is asked then), otherwise what closing that socket returned,
  /// 0. Does not tell whether the flags were read.
  int UpdateFlags();

 private:
  std::string mName;
  std::string mAddress;
  std::string mMac;
  int mFlags;
};

/// Returns a record for every IPv4 address of the machine, in the order of getifaddrs(3): several for an interface with
/// several addresses, none for one without; if_nameindex(3) has them all.
///
/// Only interfaces with all of `requiredFlags` and none of `excludedFlags` (net/if.h; 0 asks for nothing) are taken:
/// GetIfaces(IFF_UP, IFF_LOOPBACK). Hardware addresses are those of GetMAC. Returns nothing when getifaddrs(3) fails.
KIV_EXPORT std::vector<Iface> GetIfaces(unsigned int requiredFlags, unsigned int excludedFlags);

/// Returns the hardware address of an interface, the first line of "/sys/class/net/NAME/address" as it stands; nothing
/// for a null pointer or an unknown name. The name is not checked, and a path of more than 47 bytes is cut. /sys shows
/// the namespace that it was mounted in.
KIV_EXPORT std::string GetMAC(const char* name);

/// The "Flags" column of /proc/net/arp when it has exactly one bit. Apart from the second, these are names for bits,
/// not states that Linux reports there; see docs/behaviour.md.
enum class ArpState : unsigned char {
  Incomplete = 0,  ///< 0x01
  Reachable = 1,   ///< 0x02, what Linux shows for every neighbour with a known address.
  Stale = 2,       ///< 0x04
  Delay = 3,       ///< 0x08
  Probe = 4,       ///< 0x10
  Failed = 5,      ///< 0x20
  NoArp = 6,       ///< 0x40
  Permanent = 7,   ///< 0x80
  Unknown = 8      ///< Anything else: 0x0 for an unanswered request, 0x6 for a permanent entry, ...
};

/// One neighbour, a line of /proc/net/arp; see proc(5).
struct ArpEntry {
  std::string iface;                   ///< Name of the interface.
  std::uint32_t ip = 0;                ///< IPv4 address in network byte order; NtoIP makes text of it.
  std::string mac;                     ///< "aa:bb:cc:dd:ee:ff"; all zero while unknown.
  ArpState state = ArpState::Unknown;  ///< See ArpState: the kernel prints flags here, not states.
};

/// Returns the neighbours in the order of /proc/net/arp, without lines that are not one and without hardware addresses
/// that have not six bytes. /proc/net shows the namespace of the main thread. Returns nothing when the file cannot be
/// read.
KIV_EXPORT std::vector<ArpEntry> GetArpTable();

/// One IPv4 route, a line of /proc/net/route (fib_route_seq_show in the kernel's net/ipv4/fib_trie.c). Its addresses
/// are the numbers that the kernel printed: on a little-endian machine they are addresses in network byte order, and
/// NtoIP makes text of them.
struct RoutingTableEntry {
  std::string iface;              ///< Name of the interface, "*" for a route that rejects.
  std::uint32_t destination = 0;  ///< 0 for the default route.
  std::uint32_t gateway = 0;      ///< 0 for none.
  std::uint32_t mask = 0;         ///< Network mask.
  std::uint32_t metric = 0;       ///< The smaller wins.
  std::uint32_t flags = 0;        ///< RTF_UP, RTF_GATEWAY, RTF_HOST, ... of net/route.h.
};

/// Returns the routes of the main table in the order of /proc/net/route; a malformed column reads as 0. /proc/net shows
/// the namespace of the main thread. Returns nothing when the file cannot be read.
KIV_EXPORT std::vector<RoutingTableEntry> GetRoutingTable();

// --------------------------------------------------------------------------------------------------- HTTP client

/// What a server answered.
struct HttpResponse {
  int status = 0;      ///< Status code; 0 when none was read or it was not a number.
  std::string reason;  ///< Reason phrase, without the line end.
  std::string body;    ///< Body bytes as sent (chunked coding is not undone); empty when they went to a callback.
  /// Header pairs in the order found. Only lines behind the empty line that ends the head are taken; see HttpClient.
  std::vector<std::pair<std::string, std::string>> headers;
};

/// Makes HTTP/1.1 requests over plain TCP and IPv4, one connection each, and reads until the server closes.
///
/// Every call blocks the calling thread: for the time-out per connect, per send and per receive, and longer while a
/// server keeps sending or redirecting. Neither head nor body has a size limit; stop a large body through the callback.
/// The client owns no descriptor between calls. Two threads may use two clients; one client may be used by several as
/// long as none changes its headers or time-out.
///
/// The header lines that a response gives are the lines which follow its head in the same read, not those between the
/// status line and the empty line. A redirect (301, 302, 307) is followed only when its "Location" is among those.
class KIV_EXPORT HttpClient {
 public:
  /// Receives `length` bytes of a body at `data`, valid during the call only; returns false to abort the transfer.
  using BodyCallback = std::function<bool(const char* data, unsigned int length)>;

  /// The parts of a URL that a request needs.
  struct ParsedUrl {
    std::string host;          ///< Name or dotted address, without the port.
    std::string path;          ///< From the first "/" on, with query and fragment, not decoded.
    unsigned short port = 80;  ///< TCP port in host byte order.
  };

  /// Makes a client without extra headers and with a time-out of 5000 ms.
  HttpClient();

  /// Sets the time-out in milliseconds, 1 or more, applied in whole seconds, rounded up. Returns true; for anything
  /// less it restores 5000 and returns false.
  bool SetTimeout(int ms);

  /// Appends a header line to every later request, after the client's own lines. Nothing is checked: CR and LF go out
  /// as they are, and a name given twice is sent twice.
  void AddHeader(const std::string& name, const std::string& value);

  /// Forgets all headers added.
  void ClearHeaders();

  /// Fetches `url`. Returns the response, of whatever status; status 0 when the URL does not parse, no connection can
  /// be made, no status code came, or a followed redirect failed.
  HttpResponse Get(const std::string& url);

  /// Fetches `url` and hands the body to `callback` as it arrives. Returns true whatever the status; false when the URL
  /// does not parse, no connection can be made, the callback refused, or a followed redirect failed.
  bool Get(const std::string& url, BodyCallback callback);

  /// Sends `body` with POST; an empty body goes without content type and length. A redirect is followed with GET and
  /// without the body. Returns as the first Get.
  HttpResponse Post(const std::string& url, const std::string& body, const std::string& contentType);

  /// Sends `body` with POST and hands the answer's body to `callback`. Returns as the second Get.
  bool Post(const std::string& url, const std::string& body, BodyCallback callback, const std::string& contentType);

  /// Splits an "http://" URL (lower case only). Returns false for another scheme, with `out` untouched, and for an
  /// empty host. `out.port` is written only when the URL names a port from 1 to 65535; otherwise ":" and what follows
  /// stay in the host. Does not block.
  bool ParseUrl(const std::string& url, ParsedUrl& out);

  /// Resolves and connects. Returns a blocking TCP descriptor that the caller owns, or -1. When setting up the socket
  /// for the last address fails, the number of a descriptor closed already is returned instead of -1.
  int Connect(const ParsedUrl& url);

  /// Writes one whole request with a single send(2), whose result is ignored: a failure shows as a missing response.
  void SendRequest(int fd, const std::string& method, const ParsedUrl& url, const std::string& body,
                   const std::string& contentType);

  /// Reads an answer until the server closes, the time-out passes or a receive fails, EINTR included, and adds it to
  /// `resp`; the body goes to `callback` unless that is empty. Returns false only when the callback did. Leaves `fd`
  /// open.
  bool ReadResponse(int fd, HttpResponse& resp, BodyCallback callback);

  /// Follows the redirect that `resp`, the answer to `url`, asks for, if it does and `redirectsLeft` is at least 1, and
  /// replaces `resp` (or streams to `callback`). Every hop starts with 5 again, so a chain has no limit. Returns false
  /// only when a followed request failed.
  bool HandleRedirect(HttpResponse& resp, const std::string& url, int redirectsLeft, BodyCallback callback);

 private:
  bool Exchange(const std::string& url, const std::string& method, const std::string& body,
                const std::string& contentType, const BodyCallback& callback, HttpResponse& response);
  bool FollowRedirect(HttpResponse& resp, const std::string& url, BodyCallback callback);

  std::vector<std::pair<std::string, std::string>> mHeaders;
  int mTimeout;
};

}  // namespace kiv::net

#endif  // KIV_NET_H
