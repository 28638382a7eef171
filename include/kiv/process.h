#ifndef KIV_PROCESS_H
#define KIV_PROCESS_H

/// Services of kiv::process: programs, daemons, pid files and process lookup. The namespace is reserved; version 1.0.0
/// declares nothing in it yet.
namespace kiv::process {}

#endif  // KIV_PROCESS_H
