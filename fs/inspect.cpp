#include <kiv/fs.h>
#include <unistd.h>

namespace kiv::fs {

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

}  // namespace kiv::fs
