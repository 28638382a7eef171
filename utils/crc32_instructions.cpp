#include "utils/crc32.h"

#if defined(__x86_64__)

#include <cpuid.h>
#include <immintrin.h>

namespace kiv::utils {
namespace {

// A run of bytes is a polynomial, and any other one with the same remainder gives the same checksum. So 16 bytes that d
// bits follow are replaced by a shorter polynomial that is to be added to what stands there: with H and L, the two
// halves, H * x^(64 + d) + L * x^d, where the powers are taken modulo the CRC's own polynomial beforehand. What remains
// in the end are 16 bytes, which the tables take. Products of reflected numbers come out multiplied by x, which is why
// the powers are one less.

constexpr std::size_t kBlock = sizeof(__m128i);
constexpr std::size_t kLanes = 4;

constexpr std::uint64_t PowerOfX(unsigned int degree) {
  std::uint32_t power = std::uint32_t{1} << 31;
  for (unsigned int i = 0; i < degree; ++i) {
    power = ShiftCrc32(power);
  }
  return std::uint64_t{power} << 32;
}

template <unsigned int Bits>
struct Distance {
  static constexpr auto kHigh = static_cast<long long>(PowerOfX(64 + Bits - 1));
  static constexpr auto kLow = static_cast<long long>(PowerOfX(Bits - 1));
};

__m128i Load(const unsigned char* data) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(data)); }

template <unsigned int Bits>
[[gnu::target("pclmul")]] __m128i Fold(__m128i block, __m128i onto) {
  // The bytes that come first are the high half of the polynomial, and the low one of the register.
  const __m128i powers = _mm_set_epi64x(Distance<Bits>::kLow, Distance<Bits>::kHigh);
  const __m128i high = _mm_clmulepi64_si128(block, powers, 0x00);
  const __m128i low = _mm_clmulepi64_si128(block, powers, 0x11);
  return _mm_xor_si128(_mm_xor_si128(high, low), onto);
}

bool HasCarrylessMultiplication() {
  unsigned int eax = 0;
  unsigned int ebx = 0;
  unsigned int ecx = 0;
  unsigned int edx = 0;
  return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_PCLMUL) != 0;
}

// Several lanes, since a multiplication takes longer than the next one has to wait.
[[gnu::target("pclmul")]] std::size_t FoldBlocks(std::uint32_t& crc, const unsigned char* data, std::size_t size) {
  constexpr std::size_t kStride = kLanes * kBlock;
  __m128i lanes[kLanes];
  for (std::size_t i = 0; i < kLanes; ++i) {
    lanes[i] = Load(data + i * kBlock);
  }
  lanes[0] = _mm_xor_si128(lanes[0], _mm_cvtsi32_si128(static_cast<int>(crc)));
  std::size_t done = kStride;
  for (; size - done >= kStride; done += kStride) {
    for (std::size_t i = 0; i < kLanes; ++i) {
      lanes[i] = Fold<kStride * 8>(lanes[i], Load(data + done + i * kBlock));
    }
  }
  __m128i rest = lanes[0];
  for (std::size_t i = 1; i < kLanes; ++i) {
    rest = Fold<kBlock * 8>(rest, lanes[i]);
  }
  for (; size - done >= kBlock; done += kBlock) {
    rest = Fold<kBlock * 8>(rest, Load(data + done));
  }
  unsigned char bytes[kBlock];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(bytes), rest);
  crc = UpdateCrc32ByTables(0, bytes, sizeof bytes);
  return done;
}

}  // namespace

std::size_t UpdateCrc32ByInstructions(std::uint32_t& crc, const unsigned char* data, std::size_t size) {
  static const bool isFast = HasCarrylessMultiplication();  // Asking takes longer than a short checksum.
  return isFast && size >= kLanes * kBlock ? FoldBlocks(crc, data, size) : 0;
}

}  // namespace kiv::utils

#elif defined(__ARM_FEATURE_CRC32)

#include <arm_acle.h>

namespace kiv::utils {

// Chosen by the processor that the build is for (-march=armv8-a+crc, -mcpu=cortex-a53).
std::size_t UpdateCrc32ByInstructions(std::uint32_t& crc, const unsigned char* data, std::size_t size) {
  std::size_t done = 0;
  for (; size - done >= 8; done += 8) {
    const std::uint64_t high = LoadLittleEndian(data + done + 4);
    crc = __crc32d(crc, high << 32 | LoadLittleEndian(data + done));
  }
  return done;
}

}  // namespace kiv::utils

#else

namespace kiv::utils {

std::size_t UpdateCrc32ByInstructions(std::uint32_t& /*crc*/, const unsigned char* /*data*/, std::size_t /*size*/) {
  return 0;
}

}  // namespace kiv::utils

#endif
