#ifndef KIV_IPC_H
#define KIV_IPC_H

/// Services of kiv::ipc: named shared memory and semaphores. The namespace is reserved; version 1.0.0 declares nothing
/// in it yet.
namespace kiv::ipc {}

#endif  // KIV_IPC_H
