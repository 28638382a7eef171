#include "common/names.h"

#include <net/if.h>

namespace {

struct Flag {
  int bit;
  const char* name;
};

constexpr Flag kFlags[] = {
    {IFF_UP, "UP"},
    {IFF_RUNNING, "RUNNING"},
    {IFF_LOOPBACK, "LOOPBACK"},
    {IFF_BROADCAST, "BROADCAST"},
    {IFF_MULTICAST, "MULTICAST"},
    {IFF_POINTOPOINT, "POINTOPOINT"},
    {IFF_NOARP, "NOARP"},
    {IFF_PROMISC, "PROMISC"},
    {IFF_ALLMULTI, "ALLMULTI"},
    {IFF_MASTER, "MASTER"},
    {IFF_SLAVE, "SLAVE"},
};

constexpr const char* kStates[] = {"incomplete", "reachable", "stale",     "delay",  "probe",
                                   "failed",     "noarp",     "permanent", "unknown"};

}  // namespace

std::vector<std::string> FlagNames(const std::function<bool(int flag)>& isSet) {
  std::vector<std::string> names;
  for (const Flag& flag : kFlags) {
    if (isSet(flag.bit)) {
      names.emplace_back(flag.name);
    }
  }
  return names;
}

const char* StateName(kiv::net::ArpState state) { return kStates[static_cast<unsigned int>(state)]; }
