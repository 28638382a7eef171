#include <kiv/fs.h>
#include <kiv/hardware.h>
#include <kiv/ipc.h>
#include <kiv/net.h>
#include <kiv/process.h>
#include <kiv/utils.h>

#include <cstdio>

// Deriving from the library's base needs its vtable and type information from the shared object.
class Nothing : public kiv::net::EventHandler {
 public:
  void OnEvent(int, short) override {}
  int GetFd() override { return -1; }
};

int main() {
  kiv::net::EventLoop loop;
  loop.AddHandler(std::make_unique<Nothing>());
  loop.AddTimer(std::chrono::milliseconds(1), [&loop] {
    const auto fields = kiv::utils::Split("one timer, one field", "; ");
    std::printf("%s: ok\n", fields.front().c_str());
    loop.Stop();
  });
  loop.Run();
}
