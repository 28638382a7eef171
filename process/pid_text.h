#ifndef KIV_PROCESS_PID_TEXT_H
#define KIV_PROCESS_PID_TEXT_H

#include <string>

/// Texts that may be process ids, as pure code on memory.
namespace kiv::process {

/// Returns the process id in the content of a pid file: a decimal number from 1 to 4194304, the most that Linux gives,
/// with nothing behind it. Returns 0 for any other text, a number with a newline behind it included.
int PidOfFileContent(const char* text);

/// Returns the process id in the name of an entry of /proc, or 0 when it has a byte that is no digit, or no bytes.
int PidOfProcEntry(const std::string& name);

}  // namespace kiv::process

#endif  // KIV_PROCESS_PID_TEXT_H
