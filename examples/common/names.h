#ifndef EXAMPLES_NAMES_H
#define EXAMPLES_NAMES_H

#include <kiv/net.h>

#include <functional>
#include <string>
#include <vector>

/// Returns the short names of those interface flags (IFF_UP, ... of net/if.h) that `isSet` says are set.
std::vector<std::string> FlagNames(const std::function<bool(int flag)>& isSet);

/// Returns the name of a state in one word.
const char* StateName(kiv::net::ArpState state);

#endif  // EXAMPLES_NAMES_H
