#include "interpose.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <linux/watchdog.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <new>
#include <optional>
#include <sstream>
#include <utility>

namespace kiv::test {
namespace {

// Plain pointers: the calls below also come before main and while a thread ends.
thread_local CallLog* currentLog = nullptr;
thread_local ChildCallLog* currentChildLog = nullptr;
thread_local ResolverAnswer* currentAnswer = nullptr;
thread_local InterfaceList* currentInterfaces = nullptr;
thread_local std::vector<Fault*>* currentFaults = nullptr;

// How many calls of fork lie between the first process and this one.
unsigned currentGeneration = 0;

constexpr std::size_t kCounters = 1024;

void* MapShared(std::size_t size) {
  void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::abort();
  }
  return memory;
}

// What a Fault has still to count, in memory that children share: a parent sees that the call of its child came.
unsigned* NextCounter() {
  static unsigned next = 0;
  static auto* const counters = static_cast<unsigned*>(MapShared(kCounters * sizeof(unsigned)));
  return &counters[next++ % kCounters];
}

// Mapped before a log could note it.
[[maybe_unused]] const unsigned* const firstCounter = NextCounter();

void Note(const char* name, const std::initializer_list<long long>& args, const void* data, std::size_t size) {
  if (currentLog == nullptr && currentChildLog == nullptr) {
    return;
  }
  CallRecord record{name, args, data == nullptr ? "" : std::string(static_cast<const char*>(data), size)};
  if (currentChildLog != nullptr) {
    currentChildLog->Note(record);
  }
  if (currentLog != nullptr) {
    currentLog->Note(std::move(record));
  }
}

// The Fault that replaces this call, or null. All of them count it.
const Fault* FindFault(const char* name) {
  const Fault* found = nullptr;
  if (currentFaults != nullptr) {
    for (Fault* fault : *currentFaults) {
      found = fault->Takes(name) ? fault : found;
    }
  }
  return found;
}

// Gives the result to return instead of making a call, with errno set, when a Fault asks for that. The Fault's bytes go
// to `buffer`.
std::optional<long long> Replace(const char* name, void* buffer = nullptr, std::size_t size = 0) {
  const Fault* const fault = FindFault(name);
  if (fault == nullptr) {
    return std::nullopt;
  }
  (void)fault->Bytes().copy(static_cast<char*>(buffer), size);
  errno = fault->Error();
  return fault->Result();
}

// For a call that hands over `data`.
std::optional<long long> Intercept(const char* name, const std::initializer_list<long long>& args,
                                   const void* data = nullptr, std::size_t size = 0) {
  Note(name, args, data, size);
  return Replace(name);
}

// For a call that gives bytes through `buffer`.
std::optional<long long> InterceptGiving(const char* name, const std::initializer_list<long long>& args, void* buffer,
                                         std::size_t size) {
  Note(name, args, nullptr, 0);
  return Replace(name, buffer, size);
}

long long MarkOfFailure(const std::string& name) {
  if (name == "getaddrinfo" || name == "getnameinfo") {
    return EAI_SYSTEM;
  }
  return name == "if_nametoindex" || name == "if_indextoname" ? 0 : -1;
}

// The definition that comes after this executable's own.
void* Next(const char* name) {
  void* const symbol = ::dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) {
    std::abort();
  }
  return symbol;
}

// On 32-bit machines with 64-bit times the headers rename functions that take one, here and in the library alike.
const char* TimeName(const char* name64, const char* name) {
  return sizeof(std::time_t) > sizeof(long) ? name64 : name;
}

// The same renaming, on 32-bit machines with 64-bit file offsets.
const char* OffsetName(const char* name64, const char* name) { return sizeof(off_t) > sizeof(long) ? name64 : name; }

// Both, for what fills a struct stat.
const char* StatName(const char* time64, const char* name64, const char* name) {
  return TimeName(time64, OffsetName(name64, name));
}

// How many bytes the third argument of an ioctl points to; 0 when it is no pointer, or one that nobody looks at.
std::size_t SizeOfArgument(unsigned long request) {
  switch (request) {
    case SIOCGIFFLAGS:
      return sizeof(ifreq);
    case BLKGETSIZE64:
      return sizeof(std::uint64_t);
    case LOOP_SET_STATUS64:
      return sizeof(loop_info64);
    case WDIOC_SETTIMEOUT:
    case WDIOC_SETOPTIONS:
      return sizeof(int);
    default:
      return 0;
  }
}

}  // namespace

CallLog::CallLog() { currentLog = this; }

CallLog::~CallLog() { currentLog = nullptr; }

std::vector<std::string> CallLog::Names() const {
  std::vector<std::string> names;
  names.reserve(mRecords.size());
  for (const CallRecord& record : mRecords) {
    names.push_back(record.name);
  }
  return names;
}

std::vector<CallRecord> CallLog::Of(const std::string& name) const {
  std::vector<CallRecord> found;
  std::copy_if(mRecords.begin(), mRecords.end(), std::back_inserter(found),
               [&](const CallRecord& record) { return record.name == name; });
  return found;
}

struct ChildCallLog::Page {
  std::atomic<std::size_t> used;
  char text[1 << 16];
};

ChildCallLog::ChildCallLog() : mGeneration(currentGeneration), mPage(static_cast<Page*>(MapShared(sizeof(Page)))) {
  currentChildLog = this;
}

ChildCallLog::~ChildCallLog() {
  currentChildLog = nullptr;
  (void)::munmap(mPage, sizeof(Page));
}

void ChildCallLog::Note(const CallRecord& record) {
  if (currentGeneration == mGeneration) {
    return;
  }
  std::string line = std::to_string(currentGeneration - mGeneration) + " " + record.name;
  for (const long long arg : record.args) {
    line += " " + std::to_string(arg);
  }
  line += record.data.empty() ? "\n" : " " + record.data + "\n";
  const std::size_t start = mPage->used.fetch_add(line.size());
  if (start + line.size() > sizeof mPage->text) {
    std::abort();
  }
  (void)line.copy(mPage->text + start, line.size());
}

std::vector<std::string> ChildCallLog::Lines(unsigned generation) const {
  const std::string prefix = std::to_string(generation) + " ";
  std::istringstream text(std::string(mPage->text, mPage->used));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    if (line.compare(0, prefix.size(), prefix) == 0) {
      lines.push_back(line.substr(prefix.size()));
    }
  }
  return lines;
}

Fault::Fault(std::string name, long long result, int error, unsigned nth, std::string bytes, unsigned generation)
    : mName(std::move(name)),
      mResult(result),
      mError(error),
      mGeneration(currentGeneration + generation),
      mRemaining(NextCounter()),
      mBytes(std::move(bytes)) {
  *mRemaining = nth;
  if (currentFaults == nullptr) {
    currentFaults = new std::vector<Fault*>;
  }
  currentFaults->push_back(this);
}

Fault::~Fault() {
  currentFaults->erase(std::find(currentFaults->begin(), currentFaults->end(), this));
  if (currentFaults->empty()) {
    delete std::exchange(currentFaults, nullptr);
  }
  EXPECT_EQ(*mRemaining, 0U) << mName << " was to fail and was not called often enough";
}

bool Fault::Takes(const std::string& name) {
  if (name != mName || mGeneration != currentGeneration || *mRemaining == 0) {
    return false;
  }
  --*mRemaining;
  return *mRemaining == 0;
}

Fault FailCall(const std::string& name, int error, unsigned nth) { return {name, MarkOfFailure(name), error, nth}; }

Fault FailInChild(const std::string& name, int error, unsigned nth, unsigned generation) {
  return {name, MarkOfFailure(name), error, nth, "", generation};
}

Fault ReturnFrom(const std::string& name, long long result, unsigned nth) { return {name, result, 0, nth}; }

Fault GiveFrom(const std::string& name, const std::string& bytes, unsigned nth) {
  const bool returnsZero = name == "ioctl" || name == "gethostname" || name == "fstat" || name == "statfs";
  return {name, returnsZero ? 0 : static_cast<long long>(bytes.size()), 0, nth, bytes};
}

Fault GiveFromRead(const std::string& bytes) { return GiveFrom("read", bytes); }

ResolverAnswer::ResolverAnswer(std::vector<sockaddr_in> addresses) : mAddresses(std::move(addresses)) {
  currentAnswer = this;
}

ResolverAnswer::~ResolverAnswer() {
  currentAnswer = nullptr;
  EXPECT_TRUE(mGiven.empty()) << "an answer of the resolver was not freed";
}

addrinfo* ResolverAnswer::Make(const addrinfo& hints) {
  if (mAddresses.empty()) {
    return nullptr;
  }
  std::vector<std::unique_ptr<Entry>> entries;
  for (const sockaddr_in& address : mAddresses) {
    entries.push_back(std::make_unique<Entry>());
    entries.back()->address = address;
    addrinfo& info = entries.back()->info;
    info = hints;
    info.ai_addr = reinterpret_cast<sockaddr*>(&entries.back()->address);
    info.ai_addrlen = sizeof address;
  }
  for (std::size_t i = 1; i < entries.size(); ++i) {
    entries[i - 1]->info.ai_next = &entries[i]->info;
  }
  mGiven.push_back(std::move(entries));
  return &mGiven.back().front()->info;
}

void ResolverAnswer::Free(const addrinfo* list) {
  const auto given =
      std::find_if(mGiven.begin(), mGiven.end(), [&](const auto& entries) { return &entries.front()->info == list; });
  if (given == mGiven.end()) {
    EXPECT_EQ(list, nullptr) << "freed a list that the resolver did not give, or freed it twice";
    return;
  }
  mGiven.erase(given);
}

InterfaceList::InterfaceList(std::vector<ListedInterface> interfaces) : mInterfaces(std::move(interfaces)) {
  currentInterfaces = this;
}

InterfaceList::~InterfaceList() {
  currentInterfaces = nullptr;
  EXPECT_TRUE(mGiven.empty()) << "a list of interfaces was not freed";
}

ifaddrs* InterfaceList::Make() {
  for (const ListedInterface& interface : mInterfaces) {
    mGiven.push_back(std::make_unique<Node>());
    Node& node = *mGiven.back();
    node.content = interface;
    node.entry.ifa_name = node.content.name.data();
    node.entry.ifa_flags = interface.flags;
    node.entry.ifa_addr = interface.address ? reinterpret_cast<sockaddr*>(&*node.content.address) : nullptr;
  }
  for (std::size_t i = 1; i < mGiven.size(); ++i) {
    mGiven[i - 1]->entry.ifa_next = &mGiven[i]->entry;
  }
  return mGiven.empty() ? nullptr : &mGiven.front()->entry;
}

void InterfaceList::Free(const ifaddrs* list) {
  EXPECT_EQ(list, mGiven.empty() ? nullptr : &mGiven.front()->entry) << "freed what was not given, or freed it twice";
  mGiven.clear();
}

}  // namespace kiv::test

using kiv::test::currentAnswer;
using kiv::test::currentGeneration;
using kiv::test::currentInterfaces;
using kiv::test::Intercept;
using kiv::test::InterceptGiving;
using kiv::test::Next;
using kiv::test::Note;
using kiv::test::OffsetName;
using kiv::test::Replace;
using kiv::test::SizeOfArgument;
using kiv::test::StatName;
using kiv::test::TimeName;

// The C library's own declarations give these their linkage; their reserved parameter names cannot be repeated.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

#define NEXT_AS(function, name) (reinterpret_cast<decltype(&(function))>(Next(name)))
#define NEXT(function) NEXT_AS(function, #function)

int eventfd(unsigned int count, int flags) noexcept {
  static const auto next = NEXT(eventfd);
  const auto instead = Intercept("eventfd", {count, flags});
  return instead ? static_cast<int>(*instead) : next(count, flags);
}

int timerfd_create(clockid_t clock, int flags) noexcept {
  static const auto next = NEXT(timerfd_create);
  const auto instead = Intercept("timerfd_create", {clock, flags});
  return instead ? static_cast<int>(*instead) : next(clock, flags);
}

int timerfd_settime(int fd, int flags, const itimerspec* value, itimerspec* old) noexcept {
  static const auto next = NEXT_AS(timerfd_settime, TimeName("__timerfd_settime64", "timerfd_settime"));
  const auto instead = Intercept("timerfd_settime", {fd, flags}, value, sizeof *value);
  return instead ? static_cast<int>(*instead) : next(fd, flags, value, old);
}

int signalfd(int fd, const sigset_t* mask, int flags) noexcept {
  static const auto next = NEXT(signalfd);
  const auto instead = Intercept("signalfd", {fd, flags}, mask, sizeof *mask);
  return instead ? static_cast<int>(*instead) : next(fd, mask, flags);
}

int sigprocmask(int how, const sigset_t* set, sigset_t* old) noexcept {
  static const auto next = NEXT(sigprocmask);
  const auto instead = Intercept("sigprocmask", {how}, set, sizeof *set);
  return instead ? static_cast<int>(*instead) : next(how, set, old);
}

// A call that only asks for the mask is not noted: tests ask, the library does not.
int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) noexcept {
  static const auto next = NEXT(pthread_sigmask);
  const bool isRefused = set != nullptr && Intercept("pthread_sigmask", {how, sigisemptyset(set)});
  return isRefused ? errno : next(how, set, old);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) noexcept {
  static const auto next = NEXT(pthread_create);
  return Intercept("pthread_create", {}) ? errno : next(thread, attributes, function, argument);
}

sighandler_t signal(int signo, sighandler_t handler) noexcept {
  static const auto next = NEXT(signal);
  return Intercept("signal", {signo, handler == SIG_IGN}) ? SIG_ERR : next(signo, handler);
}

int poll(pollfd* entries, nfds_t count, int timeout) {
  static const auto next = NEXT(poll);
  const auto instead = Intercept("poll", {static_cast<long long>(count), timeout});
  return instead ? static_cast<int>(*instead) : next(entries, count, timeout);
}

ssize_t read(int fd, void* buffer, size_t size) {
  static const auto next = NEXT(read);
  const auto instead = InterceptGiving("read", {fd, static_cast<long long>(size)}, buffer, size);
  return instead ? static_cast<ssize_t>(*instead) : next(fd, buffer, size);
}

ssize_t write(int fd, const void* buffer, size_t size) {
  static const auto next = NEXT(write);
  const auto instead = Intercept("write", {fd, static_cast<long long>(size)}, buffer, size);
  return instead ? static_cast<ssize_t>(*instead) : next(fd, buffer, size);
}

int close(int fd) {
  static const auto next = NEXT(close);
  const auto instead = Intercept("close", {fd});
  const int error = errno;
  const int result = next(fd);
  if (instead) {
    errno = error;
  }
  return instead ? static_cast<int>(*instead) : result;
}

// Takes its third argument as the C library does, whatever type the command gives it. None of the callers here uses a
// command with a structure, so the name for 64-bit offsets and times needs no forwarding of its own.
int fcntl(int fd, int command, ...) {
  static const auto next = NEXT(fcntl);
  va_list list;
  va_start(list, command);
  void* const argument = va_arg(list, void*);
  va_end(list);
  const auto instead = Intercept("fcntl", {fd, command, static_cast<int>(reinterpret_cast<std::intptr_t>(argument))});
  return instead ? static_cast<int>(*instead) : next(fd, command, argument);
}

int open(const char* path, int flags, ...) {
  static const auto next = NEXT_AS(open, OffsetName("open64", "open"));
  va_list list;
  va_start(list, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0;
  va_end(list);
  const auto instead = Intercept("open", {flags, mode}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path, flags, mode);
}

int access(const char* path, int mode) noexcept {
  static const auto next = NEXT(access);
  const auto instead = Intercept("access", {mode}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path, mode);
}

// Takes its third argument as fcntl does.
int ioctl(int fd, unsigned long request, ...) noexcept {
  static const auto next = NEXT_AS(ioctl, TimeName("__ioctl_time64", "ioctl"));
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  const std::size_t size = SizeOfArgument(request);
  const bool isNumber = request == LOOP_SET_FD || request == LOOP_CLR_FD || request == WDIOC_KEEPALIVE;
  const auto code = static_cast<long long>(request);
  if (isNumber) {
    Note("ioctl", {fd, code, static_cast<int>(reinterpret_cast<std::intptr_t>(argument))}, nullptr, 0);
  } else {
    Note("ioctl", {fd, code}, size == 0 ? nullptr : argument, size);
  }
  const auto instead = Replace("ioctl", argument, size);
  return instead ? static_cast<int>(*instead) : next(fd, request, argument);
}

int socket(int domain, int type, int protocol) noexcept {
  static const auto next = NEXT(socket);
  const auto instead = Intercept("socket", {domain, type, protocol});
  return instead ? static_cast<int>(*instead) : next(domain, type, protocol);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
  static const auto next = NEXT_AS(setsockopt, TimeName("__setsockopt64", "setsockopt"));
  const auto instead = Intercept("setsockopt", {fd, level, option, size}, value, size);
  return instead ? static_cast<int>(*instead) : next(fd, level, option, value, size);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  static const auto next = NEXT(bind);
  const auto instead = Intercept("bind", {fd, size}, address, size);
  return instead ? static_cast<int>(*instead) : next(fd, address, size);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  static const auto next = NEXT(connect);
  const auto instead = Intercept("connect", {fd, size}, address, size);
  return instead ? static_cast<int>(*instead) : next(fd, address, size);
}

int shutdown(int fd, int how) noexcept {
  static const auto next = NEXT(shutdown);
  const auto instead = Intercept("shutdown", {fd, how});
  return instead ? static_cast<int>(*instead) : next(fd, how);
}

ssize_t send(int fd, const void* buffer, size_t size, int flags) {
  static const auto next = NEXT(send);
  const auto instead = Intercept("send", {fd, static_cast<long long>(size), flags}, buffer, size);
  return instead ? static_cast<ssize_t>(*instead) : next(fd, buffer, size, flags);
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
  static const auto next = NEXT(recv);
  const auto instead = InterceptGiving("recv", {fd, static_cast<long long>(size), flags}, buffer, size);
  return instead ? static_cast<ssize_t>(*instead) : next(fd, buffer, size, flags);
}

ssize_t sendto(int fd, const void* buffer, size_t size, int flags, const sockaddr* to, socklen_t toSize) {
  static const auto next = NEXT(sendto);
  std::string data(static_cast<const char*>(buffer), size);
  data.append(reinterpret_cast<const char*>(to), toSize);
  const auto instead = Intercept("sendto", {fd, static_cast<long long>(size), flags, toSize}, data.data(), data.size());
  return instead ? static_cast<ssize_t>(*instead) : next(fd, buffer, size, flags, to, toSize);
}

ssize_t recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* from, socklen_t* fromSize) {
  static const auto next = NEXT(recvfrom);
  const auto instead = InterceptGiving("recvfrom", {fd, static_cast<long long>(size), flags, *fromSize}, buffer, size);
  return instead ? static_cast<ssize_t>(*instead) : next(fd, buffer, size, flags, from, fromSize);
}

int sethostname(const char* name, size_t size) noexcept {
  static const auto next = NEXT(sethostname);
  const auto instead = Intercept("sethostname", {static_cast<long long>(size)}, name, size);
  return instead ? static_cast<int>(*instead) : next(name, size);
}

int gethostname(char* name, size_t size) noexcept {
  static const auto next = NEXT(gethostname);
  const auto instead = InterceptGiving("gethostname", {static_cast<long long>(size)}, name, size);
  return instead ? static_cast<int>(*instead) : next(name, size);
}

unsigned int if_nametoindex(const char* name) noexcept {
  static const auto next = NEXT(if_nametoindex);
  const auto instead = Intercept("if_nametoindex", {}, name, std::strlen(name));
  return instead ? static_cast<unsigned int>(*instead) : next(name);
}

char* if_indextoname(unsigned int index, char* name) noexcept {
  static const auto next = NEXT(if_indextoname);
  const auto instead = InterceptGiving("if_indextoname", {index}, name, IF_NAMESIZE - 1);
  if (!instead) {
    return next(index, name);
  }
  name[*instead] = '\0';
  return *instead == 0 ? nullptr : name;
}

const char* inet_ntop(int family, const void* address, char* text, socklen_t size) noexcept {
  static const auto next = NEXT(inet_ntop);
  return Intercept("inet_ntop", {family, size}) ? nullptr : next(family, address, text, size);
}

int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** list) {
  static const auto next = NEXT(getaddrinfo);
  const std::string asked = std::string(host) + " " + service;
  const addrinfo& h = *hints;
  const auto instead = Intercept("getaddrinfo",
                                 {h.ai_flags, h.ai_family, h.ai_socktype, h.ai_protocol, h.ai_addrlen,
                                  h.ai_addr != nullptr, h.ai_canonname != nullptr, h.ai_next != nullptr},
                                 asked.data(), asked.size());
  if (instead) {
    // What a resolver leaves here when it fails is undefined, and nobody may look at it.
    *list = reinterpret_cast<addrinfo*>(alignof(addrinfo));
    return static_cast<int>(*instead);
  }
  if (currentAnswer != nullptr) {
    *list = currentAnswer->Make(h);
    return 0;
  }
  return next(host, service, hints, list);
}

void freeaddrinfo(addrinfo* list) noexcept {
  static const auto next = NEXT(freeaddrinfo);
  (void)Intercept("freeaddrinfo", {});
  if (currentAnswer != nullptr) {
    currentAnswer->Free(list);
  } else {
    next(list);
  }
  errno = EBADMSG;  // Freeing may change it, and the caller has to allow for that.
}

int getifaddrs(ifaddrs** list) noexcept {
  static const auto next = NEXT(getifaddrs);
  const auto instead = Intercept("getifaddrs", {});
  if (instead) {
    // As with getaddrinfo: nobody may look at it, nor free it.
    *list = reinterpret_cast<ifaddrs*>(alignof(ifaddrs));
    return static_cast<int>(*instead);
  }
  if (currentInterfaces != nullptr) {
    *list = currentInterfaces->Make();
    return 0;
  }
  return next(list);
}

void freeifaddrs(ifaddrs* list) noexcept {
  static const auto next = NEXT(freeifaddrs);
  (void)Intercept("freeifaddrs", {});
  if (currentInterfaces != nullptr) {
    currentInterfaces->Free(list);
  } else {
    next(list);
  }
}

int getnameinfo(const sockaddr* address, socklen_t size, char* host, socklen_t hostSize, char* service,
                socklen_t serviceSize, int flags) {
  static const auto next = NEXT(getnameinfo);
  const auto instead =
      Intercept("getnameinfo", {size, hostSize, service != nullptr, serviceSize, flags}, address, size);
  return instead ? static_cast<int>(*instead) : next(address, size, host, hostSize, service, serviceSize, flags);
}

int stat(const char* path, struct stat* status) noexcept {
  static const auto next = NEXT_AS(::stat, StatName("__stat64_time64", "stat64", "stat"));
  const auto instead = Intercept("stat", {}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path, status);
}

int lstat(const char* path, struct stat* status) noexcept {
  static const auto next = NEXT_AS(lstat, StatName("__lstat64_time64", "lstat64", "lstat"));
  const auto instead = Intercept("lstat", {}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path, status);
}

int fstat(int fd, struct stat* status) noexcept {
  static const auto next = NEXT_AS(fstat, StatName("__fstat64_time64", "fstat64", "fstat"));
  const auto instead = InterceptGiving("fstat", {fd}, status, sizeof *status);
  return instead ? static_cast<int>(*instead) : next(fd, status);
}

int statfs(const char* path, struct statfs* filesystem) noexcept {
  static const auto next = NEXT_AS(::statfs, OffsetName("statfs64", "statfs"));
  Note("statfs", {}, path, std::strlen(path));
  const auto instead = Replace("statfs", filesystem, sizeof *filesystem);
  return instead ? static_cast<int>(*instead) : next(path, filesystem);
}

DIR* opendir(const char* path) {
  static const auto next = NEXT(opendir);
  return Intercept("opendir", {}, path, std::strlen(path)) ? nullptr : next(path);
}

dirent* readdir(DIR* stream) {
  static const auto next = NEXT_AS(readdir, OffsetName("readdir64", "readdir"));
  static thread_local dirent invented;
  invented = {};
  const auto instead = InterceptGiving("readdir", {}, invented.d_name, sizeof invented.d_name - 1);
  if (!instead) {
    return next(stream);
  }
  return *instead > 0 ? &invented : nullptr;
}

ssize_t getdents64(int fd, void* buffer, size_t size) noexcept {
  static const auto next = NEXT(getdents64);
  const auto instead = InterceptGiving("getdents64", {fd, static_cast<long long>(size)}, buffer, size);
  return instead ? static_cast<ssize_t>(*instead) : next(fd, buffer, size);
}

int closedir(DIR* stream) {
  static const auto next = NEXT(closedir);
  const auto instead = Intercept("closedir", {});
  const int result = next(stream);
  errno = EBADMSG;  // Closing may change it, and the caller has to allow for that.
  return instead ? static_cast<int>(*instead) : result;
}

int mkdir(const char* path, mode_t mode) noexcept {
  static const auto next = NEXT(mkdir);
  const auto instead = Intercept("mkdir", {mode}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path, mode);
}

int rmdir(const char* path) noexcept {
  static const auto next = NEXT(rmdir);
  const auto instead = Intercept("rmdir", {}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path);
}

int unlink(const char* path) noexcept {
  static const auto next = NEXT(unlink);
  const auto instead = Intercept("unlink", {}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path);
}

int symlink(const char* target, const char* path) noexcept {
  static const auto next = NEXT(symlink);
  const std::string both = std::string(target) + " " + path;
  const auto instead = Intercept("symlink", {}, both.data(), both.size());
  return instead ? static_cast<int>(*instead) : next(target, path);
}

ssize_t sendfile(int out, int in, off_t* offset, size_t size) noexcept {
  static const auto next = NEXT_AS(sendfile, OffsetName("sendfile64", "sendfile"));
  const auto instead = Intercept("sendfile", {out, in, *offset, static_cast<long long>(size)});
  return instead ? static_cast<ssize_t>(*instead) : next(out, in, offset, size);
}

int ftruncate(int fd, off_t size) noexcept {
  static const auto next = NEXT_AS(ftruncate, OffsetName("ftruncate64", "ftruncate"));
  const auto instead = Intercept("ftruncate", {fd, size});
  return instead ? static_cast<int>(*instead) : next(fd, size);
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
  static const auto next = NEXT_AS(lseek, OffsetName("lseek64", "lseek"));
  const auto instead = Intercept("lseek", {fd, offset, whence});
  return instead ? static_cast<off_t>(*instead) : next(fd, offset, whence);
}

int fsync(int fd) {
  static const auto next = NEXT(fsync);
  const auto instead = Intercept("fsync", {fd});
  return instead ? static_cast<int>(*instead) : next(fd);
}

int flock(int fd, int operation) noexcept {
  static const auto next = NEXT(flock);
  const auto instead = Intercept("flock", {fd, operation});
  return instead ? static_cast<int>(*instead) : next(fd, operation);
}

pid_t fork() noexcept {
  static const auto next = NEXT(fork);
  const auto instead = Intercept("fork", {});
  const pid_t child = instead ? static_cast<pid_t>(*instead) : next();
  if (child == 0) {
    ++currentGeneration;
  }
  return child;
}

int execvp(const char* path, char* const* args) noexcept {
  static const auto next = NEXT(execvp);
  const auto instead = Intercept("execvp", {}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path, args);
}

pid_t waitpid(pid_t pid, int* status, int options) {
  static const auto next = NEXT(waitpid);
  const auto instead = Intercept("waitpid", {pid, options});
  return instead ? static_cast<pid_t>(*instead) : next(pid, status, options);
}

pid_t setsid() noexcept {
  static const auto next = NEXT(setsid);
  const auto instead = Intercept("setsid", {});
  return instead ? static_cast<pid_t>(*instead) : next();
}

int pipe2(int* fds, int flags) noexcept {
  static const auto next = NEXT(pipe2);
  const auto instead = Intercept("pipe2", {flags});
  return instead ? static_cast<int>(*instead) : next(fds, flags);
}

int dup2(int from, int to) noexcept {
  static const auto next = NEXT(dup2);
  const auto instead = Intercept("dup2", {from, to});
  return instead ? static_cast<int>(*instead) : next(from, to);
}

int kill(pid_t pid, int signo) noexcept {
  static const auto next = NEXT(kill);
  const auto instead = Intercept("kill", {pid, signo});
  return instead ? static_cast<int>(*instead) : next(pid, signo);
}

mode_t umask(mode_t mask) noexcept {
  static const auto next = NEXT(umask);
  const auto instead = Intercept("umask", {mask});
  return instead ? static_cast<mode_t>(*instead) : next(mask);
}

int chdir(const char* path) noexcept {
  static const auto next = NEXT(chdir);
  const auto instead = Intercept("chdir", {}, path, std::strlen(path));
  return instead ? static_cast<int>(*instead) : next(path);
}

int setgroups(size_t count, const gid_t* groups) noexcept {
  static const auto next = NEXT(setgroups);
  const auto instead = Intercept("setgroups", {static_cast<long long>(count), groups != nullptr});
  return instead ? static_cast<int>(*instead) : next(count, groups);
}

int setgid(gid_t gid) noexcept {
  static const auto next = NEXT(setgid);
  const auto instead = Intercept("setgid", {gid});
  return instead ? static_cast<int>(*instead) : next(gid);
}

int setuid(uid_t uid) noexcept {
  static const auto next = NEXT(setuid);
  const auto instead = Intercept("setuid", {uid});
  return instead ? static_cast<int>(*instead) : next(uid);
}

uid_t getuid() noexcept {
  static const auto next = NEXT(getuid);
  const auto instead = Intercept("getuid", {});
  return instead ? static_cast<uid_t>(*instead) : next();
}

uid_t geteuid() noexcept {
  static const auto next = NEXT(geteuid);
  const auto instead = Intercept("geteuid", {});
  return instead ? static_cast<uid_t>(*instead) : next();
}

gid_t getgid() noexcept {
  static const auto next = NEXT(getgid);
  const auto instead = Intercept("getgid", {});
  return instead ? static_cast<gid_t>(*instead) : next();
}

gid_t getegid() noexcept {
  static const auto next = NEXT(getegid);
  const auto instead = Intercept("getegid", {});
  return instead ? static_cast<gid_t>(*instead) : next();
}

int shm_open(const char* name, int flags, mode_t mode) {
  static const auto next = NEXT(shm_open);
  const auto instead = Intercept("shm_open", {flags, mode}, name, std::strlen(name));
  return instead ? static_cast<int>(*instead) : next(name, flags, mode);
}

int shm_unlink(const char* name) {
  static const auto next = NEXT(shm_unlink);
  const auto instead = Intercept("shm_unlink", {}, name, std::strlen(name));
  return instead ? static_cast<int>(*instead) : next(name);
}

void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  static const auto next = NEXT_AS(mmap, OffsetName("mmap64", "mmap"));
  const auto instead = Intercept("mmap", {address != nullptr, static_cast<long long>(size), protection, flags, fd,
                                          static_cast<long long>(offset)});
  return instead ? MAP_FAILED : next(address, size, protection, flags, fd, offset);
}

int munmap(void* address, size_t size) noexcept {
  static const auto next = NEXT(munmap);
  const auto instead = Intercept("munmap", {static_cast<long long>(size)});
  return instead ? static_cast<int>(*instead) : next(address, size);
}

sem_t* sem_open(const char* name, int flags, ...) noexcept {
  static const auto next = NEXT(sem_open);
  mode_t mode = 0;
  unsigned int value = 0;
  if ((flags & O_CREAT) != 0) {
    va_list list;
    va_start(list, flags);
    mode = va_arg(list, mode_t);
    value = va_arg(list, unsigned int);
    va_end(list);
  }
  const auto instead = Intercept("sem_open", {flags, mode, value}, name, std::strlen(name));
  return instead ? SEM_FAILED : next(name, flags, mode, value);
}

int sem_close(sem_t* handle) noexcept {
  static const auto next = NEXT(sem_close);
  const auto instead = Intercept("sem_close", {});
  return instead ? static_cast<int>(*instead) : next(handle);
}

int sem_unlink(const char* name) noexcept {
  static const auto next = NEXT(sem_unlink);
  const auto instead = Intercept("sem_unlink", {}, name, std::strlen(name));
  return instead ? static_cast<int>(*instead) : next(name);
}

int sem_wait(sem_t* handle) {
  static const auto next = NEXT(sem_wait);
  const auto instead = Intercept("sem_wait", {});
  return instead ? static_cast<int>(*instead) : next(handle);
}

int sem_trywait(sem_t* handle) noexcept {
  static const auto next = NEXT(sem_trywait);
  const auto instead = Intercept("sem_trywait", {});
  return instead ? static_cast<int>(*instead) : next(handle);
}

int sem_post(sem_t* handle) noexcept {
  static const auto next = NEXT(sem_post);
  const auto instead = Intercept("sem_post", {});
  return instead ? static_cast<int>(*instead) : next(handle);
}

// As the ABI names the operator: with the letter of std::size_t.
#define NEXT_NEW(type, rest) \
  (reinterpret_cast<type>(Next(sizeof(std::size_t) > sizeof(unsigned int) ? "_Znwm" rest : "_Znwj" rest)))

void* operator new(std::size_t size) {
  static const auto next = NEXT_NEW(void* (*)(std::size_t), "");
  if (Replace("new")) {
    throw std::bad_alloc();
  }
  return next(size);
}

void* operator new(std::size_t size, std::align_val_t alignment) {
  static const auto next = NEXT_NEW(void* (*)(std::size_t, std::align_val_t), "St11align_val_t");
  if (Replace("new")) {
    throw std::bad_alloc();
  }
  return next(size, alignment);
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
