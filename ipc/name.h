#ifndef KIV_IPC_NAME_H
#define KIV_IPC_NAME_H

#include <string>

namespace kiv::ipc {

/// Tells whether the kernel's objects may be asked for by this name at all: it begins with '/'.
inline bool IsName(const std::string& name) { return !name.empty() && name.front() == '/'; }

}  // namespace kiv::ipc

#endif  // KIV_IPC_NAME_H
