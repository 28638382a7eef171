#include <arpa/inet.h>
#include <kiv/net.h>

#include <cstring>

namespace kiv::net {
namespace {

// Deliberate: both limits leave a byte for a terminator, although the kernel would take one byte more of an abstract
// name. Peers built with the same limits must agree on which names exist.
constexpr std::size_t kMaxFilePath = sizeof(sockaddr_un::sun_path) - 1;
constexpr std::size_t kMaxAbstractName = sizeof(sockaddr_un::sun_path) - 2;
constexpr std::size_t kPathOffset = offsetof(sockaddr_un, sun_path);

bool FillAbstract(sockaddr_un& addr, const std::string& name) {
  if (name.size() > kMaxAbstractName) {
    return false;
  }
  std::memcpy(addr.sun_path + 1, name.data(), name.size());
  return true;
}

bool FillFile(sockaddr_un& addr, const std::string& path) {
  if (path.size() > kMaxFilePath) {
    return false;
  }
  std::strncpy(addr.sun_path, path.c_str(), kMaxFilePath);
  return true;
}

}  // namespace

UnixAddress::UnixAddress(const std::string& path, bool abstract) : mAddr{}, mLen(0), mValid(false) {
  if (!SetAddress(mAddr, path, abstract)) {
    return;
  }
  const std::size_t used = abstract ? 1 + path.size() : std::strlen(mAddr.sun_path);
  mLen = static_cast<socklen_t>(kPathOffset + used);
  mValid = true;
}

bool SetAddress(sockaddr_un& addr, const std::string& path, bool abstract) {
  if (path.empty()) {
    return false;
  }
  addr = sockaddr_un{};
  addr.sun_family = AF_UNIX;
  return abstract ? FillAbstract(addr, path) : FillFile(addr, path);
}

bool SetAddress(sockaddr_in& addr, const std::string& ip, unsigned short port) {
  addr = sockaddr_in{};
  addr.sin_port = htons(port);
  addr.sin_family = AF_INET;
  return ::inet_pton(AF_INET, ip.c_str(), &addr.sin_addr) == 1;
}

std::pair<std::string, unsigned short> GetAddress(const sockaddr_in& addr) {
  return {NtoIP(addr.sin_addr.s_addr), ntohs(addr.sin_port)};
}

bool IPtoN(const std::string& ip, unsigned int& out) {
  in_addr parsed{};
  if (ip.empty() || ::inet_pton(AF_INET, ip.c_str(), &parsed) != 1) {
    return false;
  }
  out = parsed.s_addr;
  return true;
}

std::string NtoIP(unsigned int addr) {
  char text[INET_ADDRSTRLEN] = {};
  const in_addr binary{addr};
  if (::inet_ntop(AF_INET, &binary, text, sizeof text) == nullptr) {
    return {};
  }
  return text;
}

}  // namespace kiv::net
