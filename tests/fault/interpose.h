#ifndef KIV_TESTS_FAULT_INTERPOSE_H
#define KIV_TESTS_FAULT_INTERPOSE_H

#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// Stands between the library and the C library. This executable defines the calls that the library makes (eventfd,
/// poll, send, close, ...) and forwards each one, unless a Fault decides its result. Everything here acts on the thread
/// that made it and ends with its scope; other threads, a server for instance, are left alone.
namespace kiv::test {

/// One call as the library made it.
struct CallRecord {
  std::string name;
  std::vector<long long> args;  ///< Arguments that are numbers, in their order; pointers are left out.
  /// Bytes handed over: an address, an option value, a timer setting, a name, data to send. Those of sendto are the
  /// data and behind them the address.
  std::string data;
};

/// Notes the calls made while it exists. Only one at a time.
class CallLog {
 public:
  CallLog();
  CallLog(const CallLog&) = delete;
  CallLog& operator=(const CallLog&) = delete;
  ~CallLog();

  void Note(CallRecord record) { mRecords.push_back(std::move(record)); }

  /// Returns the names of all calls in their order.
  std::vector<std::string> Names() const;

  /// Returns the calls of one name in their order.
  std::vector<CallRecord> Of(const std::string& name) const;

 private:
  std::vector<CallRecord> mRecords;
};

/// Notes the calls made by the children of this process and by theirs while it exists. Only one at a time. Read it when
/// they have ended.
class ChildCallLog {
 public:
  ChildCallLog();
  ChildCallLog(const ChildCallLog&) = delete;
  ChildCallLog& operator=(const ChildCallLog&) = delete;
  ~ChildCallLog();

  void Note(const CallRecord& record);

  /// Returns the calls of the children (1), or of the children's children (2), in their order, as lines of text: the
  /// name, the numbers, and the bytes handed over, with a blank between.
  std::vector<std::string> Lines(unsigned generation = 1) const;

 private:
  struct Page;

  unsigned mGeneration;
  Page* mPage;
};

/// Decides the result of one call that is still to come. Fails the test when that call never came.
class Fault {
 public:
  /// Acts on the process that makes it; with a `generation` of 1 on its children instead, with 2 on theirs.
  Fault(std::string name, long long result, int error, unsigned nth, std::string bytes = "", unsigned generation = 0);
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;
  ~Fault();

  /// Counts a call; true when it is the one to replace.
  bool Takes(const std::string& name);

  long long Result() const { return mResult; }
  int Error() const { return mError; }
  const std::string& Bytes() const { return mBytes; }

 private:
  std::string mName;
  long long mResult;
  int mError;
  unsigned mGeneration;
  unsigned* mRemaining;  ///< Shared with the children.
  std::string mBytes;
};

/// Makes the `nth` call of `name` from now on fail with `error` in errno, without reaching the kernel, and return what
/// marks a failure: EAI_SYSTEM from getaddrinfo and getnameinfo, 0 or null from the calls for interface names, null
/// from opendir, readdir and sem_open, MAP_FAILED from mmap, the error itself from pthread_create and pthread_sigmask,
/// -1 from all others. Some differ: close and closedir do close before they report the error, as Linux does, and
/// closedir leaves EBADMSG in errno whatever becomes of it. "new" is the operator, which throws std::bad_alloc; make
/// that Fault last, and no log beside it, since both need memory.
Fault FailCall(const std::string& name, int error, unsigned nth = 1);

/// Makes the `nth` call of `name` that a child of this process makes fail in the same way; in a child's child with a
/// `generation` of 2.
Fault FailInChild(const std::string& name, int error, unsigned nth = 1, unsigned generation = 1);

/// Makes the `nth` call of `name` from now on return `result` without reaching the kernel.
Fault ReturnFrom(const std::string& name, long long result, unsigned nth = 1);

/// Makes the `nth` call of `name` from now on give these bytes, and no more, without reaching the kernel. For read,
/// recv, recvfrom and if_indextoname, which return their number (the last one a text made of them), and for ioctl,
/// gethostname, fstat and statfs, which return 0. From readdir it is an entry of that name.
Fault GiveFrom(const std::string& name, const std::string& bytes, unsigned nth = 1);

/// Makes the next read give these bytes, and no more, whatever the descriptor has.
Fault GiveFromRead(const std::string& bytes);

/// Makes getaddrinfo find these addresses, in this order, whatever it is asked for. Fails the test when an answer is
/// not freed. Only one at a time.
class ResolverAnswer {
 public:
  explicit ResolverAnswer(std::vector<sockaddr_in> addresses);
  ResolverAnswer(const ResolverAnswer&) = delete;
  ResolverAnswer& operator=(const ResolverAnswer&) = delete;
  ~ResolverAnswer();

  addrinfo* Make(const addrinfo& hints);
  void Free(const addrinfo* list);

 private:
  struct Entry {
    addrinfo info;
    sockaddr_in address;
  };

  std::vector<sockaddr_in> mAddresses;
  std::vector<std::vector<std::unique_ptr<Entry>>> mGiven;
};

/// One entry of an InterfaceList.
struct ListedInterface {
  std::string name;
  unsigned int flags;
  std::optional<sockaddr_in> address;  ///< Nothing for an entry without an address.
};

/// Makes getifaddrs give these entries, in this order. Fails the test when a list is not freed, or freed twice. Only
/// one at a time, and one list at a time from it.
class InterfaceList {
 public:
  explicit InterfaceList(std::vector<ListedInterface> interfaces);
  InterfaceList(const InterfaceList&) = delete;
  InterfaceList& operator=(const InterfaceList&) = delete;
  ~InterfaceList();

  ifaddrs* Make();
  void Free(const ifaddrs* list);

 private:
  struct Node {
    ListedInterface content;
    ifaddrs entry;
  };

  std::vector<ListedInterface> mInterfaces;
  std::vector<std::unique_ptr<Node>> mGiven;
};

/// Reads a value back out of CallRecord::data; zero-filled when the sizes differ.
template <typename Value>
Value Decode(const std::string& data) {
  Value value{};
  if (data.size() == sizeof value) {
    data.copy(reinterpret_cast<char*>(&value), sizeof value);
  }
  return value;
}

}  // namespace kiv::test

#endif  // KIV_TESTS_FAULT_INTERPOSE_H
