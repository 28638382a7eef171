#ifndef KIV_UTILS_CRC32_H
#define KIV_UTILS_CRC32_H

#include <array>
#include <cstddef>
#include <cstdint>

/// The parts of CRC-32, reflected: the lowest bit of the first byte is the coefficient of the highest degree.
namespace kiv::utils {

constexpr std::uint32_t kCrc32Polynomial = 0xEDB88320;

/// Multiplies by x, modulo the polynomial.
constexpr std::uint32_t ShiftCrc32(std::uint32_t crc) { return (crc >> 1) ^ ((crc & 1) != 0 ? kCrc32Polynomial : 0); }

/// What each value of a byte does to the checksum.
using Crc32Table = std::array<std::uint32_t, 256>;

constexpr Crc32Table MakeCrc32Table() {
  Crc32Table table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t crc = i;
    for (int bit = 0; bit < 8; ++bit) {
      crc = ShiftCrc32(crc);
    }
    table[i] = crc;
  }
  return table;
}

inline constexpr Crc32Table kCrc32Table = MakeCrc32Table();

/// Takes `size` bytes into the running value, on any processor.
std::uint32_t UpdateCrc32ByTables(std::uint32_t crc, const unsigned char* data, std::size_t size);

/// Takes bytes from the front into the running value with instructions that the processor has for this. Returns how
/// many it took: fewer than `size`, or 0, when the rest is too little, or when there are no such instructions.
std::size_t UpdateCrc32ByInstructions(std::uint32_t& crc, const unsigned char* data, std::size_t size);

/// Reads 4 bytes, the lowest one first.
inline std::uint32_t LoadLittleEndian(const unsigned char* bytes) {
  return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
         std::uint32_t{bytes[3]} << 24;
}

}  // namespace kiv::utils

#endif  // KIV_UTILS_CRC32_H
