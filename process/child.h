#ifndef KIV_PROCESS_CHILD_H
#define KIV_PROCESS_CHILD_H

#include <string>
#include <vector>

/// What happens in a child between fork(2) and the program.
///
/// The caller's other threads are gone there, and what they held locked stays locked for ever. So this code takes no
/// lock at all, that of the allocator included.
namespace kiv::process {

/// Makes the calling process the program `path`. Never returns: ends the process with status 127 when that fails, and
/// when memory or the room of a vector is not enough for the arguments.
[[noreturn]] void ExecChild(const std::string& path, const std::vector<std::string>& args) noexcept;

/// Closes every descriptor from 3 on, or none when /proc/self/fd cannot be read.
void CloseInheritedDescriptors();

}  // namespace kiv::process

#endif  // KIV_PROCESS_CHILD_H
