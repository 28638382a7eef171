#include <kiv/net.h>

#include <csignal>
#include <cstdio>

int main() {
  kiv::net::EventLoop::BlockSignals({SIGINT, SIGTERM});
  kiv::net::EventLoop loop;
  loop.AddPeriodicTimer(std::chrono::seconds(1), [] {
    const kiv::net::HttpResponse answer = kiv::net::HttpClient().Get("http://127.0.0.1:8080/status.json");
    std::printf("the status page answers %d\n", answer.status);
  });
  loop.AddSignal(SIGINT, [&loop](int) { loop.Stop(); });
  loop.AddSignal(SIGTERM, [&loop](int) { loop.Stop(); });
  loop.Run();
}
