#include "utils/crc32.h"

#include <kiv/utils.h>

namespace kiv::utils {
namespace {

// Table k is what a byte does that k more bytes follow, so that eight bytes are looked up side by side and not one
// after another. Eight tables are 8 KiB, a quarter of the first cache of a small processor.
constexpr std::size_t kSlices = 8;
using SliceTables = std::array<Crc32Table, kSlices>;

constexpr SliceTables MakeSliceTables() {
  SliceTables tables{};
  tables[0] = kCrc32Table;
  for (std::size_t k = 1; k < kSlices; ++k) {
    for (std::size_t i = 0; i < 256; ++i) {
      const std::uint32_t before = tables[k - 1][i];
      tables[k][i] = (before >> 8) ^ kCrc32Table[before & 0xFF];
    }
  }
  return tables;
}

constexpr SliceTables kTables = MakeSliceTables();

std::uint32_t LookUp(std::uint32_t word, std::size_t bytesBehind) {
  return kTables[bytesBehind + 3][word & 0xFF] ^ kTables[bytesBehind + 2][(word >> 8) & 0xFF] ^
         kTables[bytesBehind + 1][(word >> 16) & 0xFF] ^ kTables[bytesBehind][word >> 24];
}

}  // namespace

std::uint32_t UpdateCrc32ByTables(std::uint32_t crc, const unsigned char* data, std::size_t size) {
  for (; size >= kSlices; data += kSlices, size -= kSlices) {
    crc = LookUp(crc ^ LoadLittleEndian(data), 4) ^ LookUp(LoadLittleEndian(data + 4), 0);
  }
  for (; size != 0; ++data, --size) {
    crc = (crc >> 8) ^ kCrc32Table[(crc ^ *data) & 0xFF];
  }
  return crc;
}

unsigned int UpdateCrc32(unsigned int crc, const void* data, unsigned int len) {
  if (data == nullptr || len == 0) {
    return crc;
  }
  const auto* const bytes = static_cast<const unsigned char*>(data);
  std::uint32_t value = crc;
  const std::size_t done = UpdateCrc32ByInstructions(value, bytes, len);
  return UpdateCrc32ByTables(value, bytes + done, len - done);
}

unsigned int FinalCrc32(unsigned int crc) { return ~crc; }

unsigned int CalcCrc32(const void* data, unsigned int len) { return FinalCrc32(UpdateCrc32(0xFFFFFFFF, data, len)); }

unsigned int CalcCrc32(const std::string& s) { return CalcCrc32(s.data(), static_cast<unsigned int>(s.size())); }

}  // namespace kiv::utils
