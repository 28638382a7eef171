#include <kiv/fs.h>
#include <kiv/hardware.h>
#include <kiv/ipc.h>
#include <kiv/net.h>
#include <kiv/process.h>
#include <kiv/utils.h>

#include <cstdio>

int main() {
  kiv::net::EventLoop loop;
  loop.AddTimer(std::chrono::milliseconds(1), [&loop] {
    const auto fields = kiv::utils::Split("one timer, one field", "; ");
    std::printf("%s: ok\n", fields.front().c_str());
    loop.Stop();
  });
  loop.Run();
}
