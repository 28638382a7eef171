#include <kiv/utils.h>
#include <unistd.h>

namespace kiv::utils {
namespace {

constexpr std::size_t kMaxName = 63;
constexpr std::size_t kBufferSize = 65;

}  // namespace

bool SetHostname(const std::string& name) {
  constexpr char kRefused[] = {'\0', '\n', '\r'};
  if (name.empty() || name.size() > kMaxName || name.find_first_of(kRefused, 0, sizeof kRefused) != std::string::npos) {
    return false;
  }
  return ::sethostname(name.data(), name.size()) == 0;
}

std::string GetHostname() {
  char name[kBufferSize] = {};
  if (::gethostname(name, sizeof name) != 0) {
    return {};
  }
  name[kBufferSize - 1] = '\0';  // A name that fills the buffer has no terminator.
  return name;
}

}  // namespace kiv::utils
