// SPI NOR flash: set-up, ID, program and read through the adapter's own flash commands,
// and the erase helpers the library runs itself with the stored command bytes.
#include <algorithm>
#include <chrono>
#include <thread>

#include "device/abi.hpp"
#include "peripherals/spi/commands.hpp"
#include "peripherals/spi/master.hpp"
#include "peripherals/spi/spi_state.hpp"

namespace veltrix::spi {
namespace {

constexpr int kPollMs = 10;
constexpr int kEraseMarginMs = 1000;

SPI_FLASH_CONFIG stored(int slot, uint8_t ch) {
  std::scoped_lock g(state().mutex);
  return state().flash[size_t(slot)][ch & 1];
}

int flash_init(int handle, uint8_t ch, uint32_t clock, const SPI_FLASH_CONFIG* c) {
  if (c == nullptr) return SPI_ERR_PARAMETER;
  const int slot = slot_of(handle);
  if (slot < 0) return SPI_ERR_SEND;
  // The two parameters go out byte for byte, in the caller's memory order.
  wire::PayloadBuilder b(5 + sizeof(SPI_FLASH_CONFIG));
  b.u8(ch).be32(clock).bytes(c->Cmd, sizeof c->Cmd).u8(c->IDLength);
  b.bytes(c->Param64, sizeof c->Param64).bytes(c->Param32, sizeof c->Param32);
  if (int r = ack_exchange(handle, kCmdFlashInit, b.span(), kReplyMs)) return r;
  std::scoped_lock g(state().mutex);
  state().flash[size_t(slot)][ch & 1] = *c;
  return SPI_SUCCESS;
}

int read_id(int handle, uint8_t ch, uint8_t* out) {
  if (out == nullptr) return SPI_ERR_PARAMETER;
  const int slot = slot_of(handle);
  if (slot < 0) return SPI_ERR_SEND;
  const size_t len = std::max<size_t>(stored(slot, ch).IDLength, 1);
  const uint8_t p[1] = {ch};
  return data_exchange(handle, kCmdFlashReadId, p, {out, len}, kReplyMs);
}

int flash_write(int handle, uint8_t ch, uint32_t addr, const uint8_t* data, int len) {
  if (!valid_length(len, data)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(5 + size_t(len));
  b.u8(ch).be32(addr).bytes(data, size_t(len));
  return ack_exchange(handle, kCmdFlashWrite, b.span(), kLongReplyMs);
}

int flash_read(int handle, uint8_t ch, uint32_t cmd, uint32_t addr, uint8_t* buf, int len) {
  if (!valid_length(len, buf)) return SPI_ERR_PARAMETER;
  wire::PayloadBuilder b(9);
  b.u8(ch).be32(addr).be32(uint32_t(len));
  return data_exchange(handle, cmd, b.span(), {buf, size_t(len)}, kLongReplyMs);
}

int erase_sectors(int handle, uint8_t ch, uint32_t addr, int count, int timeout) {
  wire::PayloadBuilder b(9);
  b.u8(ch).be32(addr).be32(uint32_t(count));
  return ack_exchange(handle, kCmdFlashEraseSector, b.span(), plus_ms(timeout, kEraseMarginMs));
}

// Polls the status register through the stored read-status command.
class StatusPoll {
 public:
  StatusPoll(int handle, uint8_t ch, const SPI_FLASH_CONFIG& c, int timeout)
      : handle_(handle), ch_(ch), cmd_(c.Cmd[SPI_FLASH_CMD_READ_STATUS]), timeout_(timeout) {}

  int read(uint8_t& status) { return master_write_read(handle_, ch_, &cmd_, 1, &status, 1, 0); }
  // Every pause counts 10 ms against the caller's time-out: -6 once it is spent.
  int pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    spent_ += kPollMs;
    return spent_ > int64_t(timeout_) ? SPI_ERR_STATUS : SPI_SUCCESS;
  }
  int wait_ready() {
    for (;;) {
      uint8_t status = 0;
      if (int r = read(status)) return r;
      if ((status & SPI_FLASH_STATUS_BUSY) == 0) return SPI_SUCCESS;
      if (int r = pause()) return r;
    }
  }
  void restart() { spent_ = 0; }

 private:
  int handle_;
  uint8_t ch_;
  uint8_t cmd_;
  int timeout_;
  int64_t spent_ = 0;
};

int send_command(int handle, uint8_t ch, uint8_t cmd) { return master_write(handle, ch, &cmd, 1); }

int erase_chip(int handle, uint8_t ch, int timeout) {
  const int slot = slot_of(handle);
  if (slot < 0) return SPI_ERR_SEND;
  const SPI_FLASH_CONFIG c = stored(slot, ch);
  StatusPoll poll(handle, ch, c, timeout);
  if (int r = poll.wait_ready()) return r;
  if (int r = send_command(handle, ch, c.Cmd[SPI_FLASH_CMD_WRITE_ENABLE])) return r;
  if (int r = send_command(handle, ch, c.Cmd[SPI_FLASH_CMD_CHIP_ERASE])) return r;
  poll.restart();
  return poll.wait_ready();
}

int erase(int handle, uint8_t ch, uint32_t addr, uint8_t addr_bytes, uint8_t erase_cmd,
          int timeout) {
  const int slot = slot_of(handle);
  if (slot < 0) return SPI_ERR_SEND;
  const SPI_FLASH_CONFIG c = stored(slot, ch);
  StatusPoll poll(handle, ch, c, timeout);
  if (int r = poll.wait_ready()) return r;
  // The latch may not take while the part settles: enable until it reads set.
  for (;;) {
    if (int r = send_command(handle, ch, c.Cmd[SPI_FLASH_CMD_WRITE_ENABLE])) return r;
    uint8_t status = 0;
    if (int r = poll.read(status)) return r;
    if (status & SPI_FLASH_STATUS_WEL) break;
    if (int r = poll.pause()) return r;
  }
  const int n = std::min<int>(addr_bytes, 4);
  uint8_t be[4];
  wire::put_be32(be, addr);
  uint8_t frame[5] = {erase_cmd};
  std::copy(be + 4 - n, be + 4, frame + 1);
  if (int r = master_write(handle, ch, frame, 1 + n)) return r;
  poll.restart();
  return poll.wait_ready();
}

}  // namespace
}  // namespace veltrix::spi

using namespace veltrix;
using namespace veltrix::spi;

extern "C" {

VELTRIX_EXPORT(int, SPI_FlashInit,
               (int h, unsigned char ch, unsigned int clock, SPI_FLASH_CONFIG* c), SPI_ERR_REPLY,
               { return flash_init(h, ch, clock, c); })

VELTRIX_EXPORT(int, SPI_FlashReadID, (int h, unsigned char ch, unsigned char* id), SPI_ERR_REPLY,
               { return read_id(h, ch, id); })

VELTRIX_EXPORT(int, SPI_FlashWrite,
               (int h, unsigned char ch, unsigned int addr, unsigned char* data, int len),
               SPI_ERR_REPLY, { return flash_write(h, ch, addr, data, len); })

VELTRIX_EXPORT(int, SPI_FlashRead,
               (int h, unsigned char ch, unsigned int addr, unsigned char* buf, int len),
               SPI_ERR_REPLY, { return flash_read(h, ch, kCmdFlashRead, addr, buf, len); })

VELTRIX_EXPORT(int, SPI_FlashReadFast,
               (int h, unsigned char ch, unsigned int addr, unsigned char* buf, int len),
               SPI_ERR_REPLY, { return flash_read(h, ch, kCmdFlashReadFast, addr, buf, len); })

VELTRIX_EXPORT(int, SPI_FlashEraseSector,
               (int h, unsigned char ch, unsigned int addr, int count, int timeout), SPI_ERR_REPLY,
               { return erase_sectors(h, ch, addr, count, timeout); })

VELTRIX_EXPORT(int, SPI_FlashEraseChip, (int h, unsigned char ch, int timeout), SPI_ERR_REPLY,
               { return erase_chip(h, ch, timeout); })

VELTRIX_EXPORT(int, SPI_FlashErase,
               (int h, unsigned char ch, unsigned int addr, unsigned char addr_bytes,
                unsigned char cmd, int timeout),
               SPI_ERR_REPLY, { return erase(h, ch, addr, addr_bytes, cmd, timeout); })

}  // extern "C"
