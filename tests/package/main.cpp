#include <kiv/fs.h>
#include <kiv/hardware.h>
#include <kiv/ipc.h>
#include <kiv/net.h>
#include <kiv/process.h>
#include <kiv/utils.h>

#include <cstdio>

// Deriving from the library's bases needs their vtables and type information from the shared object.
class Nothing : public kiv::net::EventHandler {
 public:
  void OnEvent(int, short) override {}
  int GetFd() override { return -1; }
};

class NoDevice : public kiv::hardware::WatchdogOps {
 public:
  int Open(const char*) override { return -1; }
  void Close(int) override {}
  int Ioctl(int, unsigned long, void*) override { return -1; }
};

int main() {
  NoDevice device;
  if (kiv::hardware::Watchdog(30, &device).KeepAlive() || kiv::utils::CalcCrc32("123456789") != 0xCBF43926) {
    return 1;
  }
  kiv::net::EventLoop loop;
  loop.AddHandler(std::make_unique<Nothing>());
  loop.AddTimer(std::chrono::milliseconds(1), [&loop] {
    const auto fields = kiv::utils::Split("one timer, one field", "; ");
    std::printf("%s: ok\n", fields.front().c_str());
    loop.Stop();
  });
  loop.Run();
}
