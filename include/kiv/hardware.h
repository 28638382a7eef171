#ifndef KIV_HARDWARE_H
#define KIV_HARDWARE_H

/// Services of kiv::hardware: the hardware watchdog. The namespace is reserved; version 1.0.0 declares nothing in it
/// yet.
namespace kiv::hardware {}

#endif  // KIV_HARDWARE_H
