#include <kiv/net.h>

#include <cstdio>

int main() {
  kiv::net::EventLoop::BlockSignals({SIGINT, SIGTERM});
  kiv::net::EventLoop loop;
  loop.AddPeriodicTimer(std::chrono::seconds(1), [] {
    const auto answer = kiv::net::HttpClient().Get("http://127.0.0.1:8080/status.json");
    std::printf("status %d, %zu bytes\n", answer.status, answer.body.size());
  });
  loop.AddSignal(SIGINT, [&loop](int) { loop.Stop(); });
  loop.AddSignal(SIGTERM, [&loop](int) { loop.Stop(); });
  loop.Run();
}
