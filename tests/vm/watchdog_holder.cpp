// Arms the machine's watchdog, says so, and waits to be killed. With an argument it only opens the device, and ends
// without having started anything.
#include <kiv/hardware.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** /*argv*/) {
  constexpr int kTimeout = 4;
  if (argc > 1) {
    const kiv::hardware::Watchdog opened(kTimeout, nullptr);
    return 0;
  }
  const kiv::hardware::WatchdogRaii guard(kTimeout, nullptr);
  (void)std::puts("armed");
  (void)std::fflush(stdout);
  (void)::pause();
  return 1;
}
