#ifndef KIV_FS_H
#define KIV_FS_H

/// Services of kiv::fs: files, directories and loop devices. The namespace is reserved; version 1.0.0 declares nothing
/// in it yet.
namespace kiv::fs {}

#endif  // KIV_FS_H
