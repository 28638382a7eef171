#ifndef KIV_INTERNAL_ADDRESS_LIST_H
#define KIV_INTERNAL_ADDRESS_LIST_H

#include <netdb.h>

#include <cerrno>
#include <string>

namespace kiv::internal {

/// Resolves a host and a port and owns the resolver's answer; empty when there is none. Blocks. Leaves errno as the
/// last call before its destruction set it.
class AddressList {
 public:
  AddressList(const std::string& host, unsigned short port, const addrinfo& hints) {
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &mFirst) != 0) {
      mFirst = nullptr;
    }
  }
  AddressList(const AddressList&) = delete;
  AddressList& operator=(const AddressList&) = delete;
  ~AddressList() {
    const int saved = errno;
    if (mFirst != nullptr) {
      ::freeaddrinfo(mFirst);
    }
    errno = saved;
  }

  const addrinfo* First() const { return mFirst; }

 private:
  addrinfo* mFirst = nullptr;
};

}  // namespace kiv::internal

#endif  // KIV_INTERNAL_ADDRESS_LIST_H
