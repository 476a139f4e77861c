#include "sim/spi_flash.hpp"

#include <algorithm>

namespace veltrix::sim {
namespace {

enum : uint8_t {
  kWriteEnable = 0x06,
  kWriteDisable = 0x04,
  kReadStatus = 0x05,
  kReadId = 0x9F,
  kRead = 0x03,
  kFastRead = 0x0B,
  kPageProgram = 0x02,
  kSectorErase = 0x20,
  kBlockErase = 0xD8,
  kChipErase = 0xC7,
  kChipErase2 = 0x60,
};

uint32_t address(const std::vector<uint8_t>& f) {
  return uint32_t(f[1]) << 16 | uint32_t(f[2]) << 8 | f[3];
}

}  // namespace

NorFlash::NorFlash() : mem(kSize, 0xFF) {}

bool NorFlash::busy() const { return std::chrono::steady_clock::now() < busy_until_; }

uint8_t NorFlash::status() const { return uint8_t((busy() ? 1 : 0) | (wel ? 2 : 0)); }

std::vector<uint8_t> NorFlash::transfer(const std::vector<uint8_t>& mosi) {
  std::vector<uint8_t> miso(mosi.size(), 0xFF);
  if (mosi.empty()) return miso;
  const uint8_t op = mosi[0];
  if (op == kReadStatus) {
    std::fill(miso.begin() + 1, miso.end(), status());
    return miso;
  }
  if (busy()) return miso;  // everything but a status read is ignored while busy
  switch (op) {
    case kReadId:
      for (size_t i = 1; i < miso.size() && i - 1 < id.size(); ++i) miso[i] = id[i - 1];
      break;
    case kWriteEnable:
      wel = true;
      break;
    case kWriteDisable:
      wel = false;
      break;
    case kRead:
    case kFastRead: {
      const size_t header = op == kRead ? 4 : 5;
      if (mosi.size() < header) break;
      uint32_t at = address(mosi);
      for (size_t i = header; i < miso.size(); ++i) miso[i] = mem[at++ % kSize];
      break;
    }
    case kPageProgram:
      if (wel && mosi.size() > 4) program(address(mosi), mosi.data() + 4, mosi.size() - 4);
      break;
    case kSectorErase:
      if (wel && mosi.size() >= 4) {
        erase(address(mosi), kSector, sector_erase_time);
        ++sector_erases;
      }
      break;
    case kBlockErase:
      if (wel && mosi.size() >= 4) {
        erase(address(mosi), kBlock, sector_erase_time * 4);
        ++block_erases;
      }
      break;
    case kChipErase:
    case kChipErase2:
      if (wel) {
        erase(0, kSize, chip_erase_time);
        ++chip_erases;
      }
      break;
    default:
      break;
  }
  return miso;
}

void NorFlash::program(uint32_t addr, const uint8_t* data, size_t n) {
  // The page latch keeps the last 256 bytes clocked in; the column wraps inside the page.
  const uint32_t page = uint32_t(addr % kSize) & ~uint32_t(kPage - 1);
  const size_t skip = n > kPage ? n - kPage : 0;
  for (size_t i = skip; i < n; ++i) {
    const uint32_t col = uint32_t(addr + i) & (kPage - 1);
    mem[page + col] &= data[i];  // programming only clears bits
  }
  wel = false;
  ++page_programs;
}

void NorFlash::erase(uint32_t addr, size_t size, std::chrono::milliseconds busy) {
  const size_t base = (addr % kSize) & ~(size - 1);
  std::fill(mem.begin() + long(base), mem.begin() + long(std::min(base + size, kSize)), 0xFF);
  wel = false;
  busy_until_ = std::chrono::steady_clock::now() + busy;
}

}  // namespace veltrix::sim
