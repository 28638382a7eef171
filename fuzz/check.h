#ifndef KIV_FUZZ_CHECK_H
#define KIV_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>

namespace kiv::fuzz {

/// Aborts, which libFuzzer takes for a finding, unless `holds`.
inline void Check(bool holds, const char* what) {
  if (!holds) {
    (void)std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

}  // namespace kiv::fuzz

#endif  // KIV_FUZZ_CHECK_H
