#include "interpose.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <utility>

namespace kiv::test {
namespace {

// Plain pointers: the calls below also come before main and while a thread ends.
thread_local CallLog* currentLog = nullptr;
thread_local ResolverAnswer* currentAnswer = nullptr;
thread_local InterfaceList* currentInterfaces = nullptr;
thread_local std::vector<Fault*>* currentFaults = nullptr;

void Note(const char* name, const std::initializer_list<long long>& args, const void* data, std::size_t size) {
  if (currentLog != nullptr) {
    currentLog->Note({name, args, data == nullptr ? "" : std::string(static_cast<const char*>(data), size)});
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

Fault::Fault(std::string name, long long result, int error, unsigned nth, std::string bytes)
    : mName(std::move(name)), mResult(result), mError(error), mRemaining(nth), mBytes(std::move(bytes)) {
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
  EXPECT_EQ(mRemaining, 0U) << mName << " was to fail and was not called often enough";
}

bool Fault::Takes(const std::string& name) {
  if (name != mName || mRemaining == 0) {
    return false;
  }
  --mRemaining;
  return mRemaining == 0;
}

Fault FailCall(const std::string& name, int error, unsigned nth) { return {name, MarkOfFailure(name), error, nth}; }

Fault ReturnFrom(const std::string& name, long long result, unsigned nth) { return {name, result, 0, nth}; }

Fault GiveFrom(const std::string& name, const std::string& bytes, unsigned nth) {
  const bool returnsZero = name == "ioctl" || name == "gethostname";
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
using kiv::test::currentInterfaces;
using kiv::test::Intercept;
using kiv::test::InterceptGiving;
using kiv::test::Next;
using kiv::test::Note;
using kiv::test::OffsetName;
using kiv::test::Replace;
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

// Takes its third argument as fcntl does. Its type is known for the interface's flags only, the one request here.
int ioctl(int fd, unsigned long request, ...) noexcept {
  static const auto next = NEXT_AS(ioctl, TimeName("__ioctl_time64", "ioctl"));
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  const std::size_t size = request == SIOCGIFFLAGS ? sizeof(ifreq) : 0;
  Note("ioctl", {fd, static_cast<long long>(request)}, argument, size);
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

// NOLINTEND(readability-inconsistent-declaration-parameter-name)
