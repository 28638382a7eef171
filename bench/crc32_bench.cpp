// How fast CRC-32 is, beside zlib's and libdeflate's. Every function runs nine times at every size, and its fastest run
// counts, so that what else the machine does hardly shows; all that takes a minute or two. Debian: libbenchmark-dev
// zlib1g-dev libdeflate-dev.
//
//   cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DKIV_BUILD_BENCHMARKS=ON -DKIV_BUILD_TESTS=OFF
//   cmake --build build/bench --target crc32_bench
//   build/bench/bench/crc32_bench --benchmark_enable_random_interleaving=true

#include <benchmark/benchmark.h>
#include <kiv/utils.h>
#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <map>
#include <numeric>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

unsigned int Kiv(const Bytes& b) { return kiv::utils::CalcCrc32(b.data(), static_cast<unsigned int>(b.size())); }
unsigned int Zlib(const Bytes& b) { return static_cast<unsigned int>(::crc32_z(0, b.data(), b.size())); }
unsigned int Libdeflate(const Bytes& b) { return ::libdeflate_crc32(0, b.data(), b.size()); }

template <unsigned int (*Crc32)(const Bytes&)>
void Measure(benchmark::State& state) {
  Bytes bytes(static_cast<std::size_t>(state.range(0)));
  std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
  for (auto _ : state) {
    benchmark::DoNotOptimize(Crc32(bytes));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void AtAllSizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(64)->Arg(1 << 10)->Arg(64 << 10)->Arg(4 << 20)->Repetitions(9);
}

BENCHMARK(Measure<Kiv>)->Name("kiv::core")->Apply(AtAllSizes);
BENCHMARK(Measure<Zlib>)->Name("zlib")->Apply(AtAllSizes);
BENCHMARK(Measure<Libdeflate>)->Name("libdeflate")->Apply(AtAllSizes);

class BestRuns : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        double& best = mRates[std::stol(run.run_name.args)][run.run_name.function_name];
        best = std::max(best, run.counters.at("bytes_per_second").value / 1e9);
      }
    }
  }

  void Finalize() override {
    for (const auto& [size, rates] : mRates) {
      const auto zlib = rates.find("zlib");
      for (const auto& [name, rate] : rates) {
        std::printf("%7ld B  %-10s %6.2f GB/s", size, name.c_str(), rate);
        if (zlib != rates.end()) {
          std::printf(", %5.2f times zlib's", rate / zlib->second);
        }
        std::printf("\n");
      }
    }
  }

 private:
  std::map<long, std::map<std::string, double>> mRates;  // By size and name, in GB/s.
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  BestRuns reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
}
