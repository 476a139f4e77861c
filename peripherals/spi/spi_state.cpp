#include "peripherals/spi/spi_state.hpp"

#include <algorithm>
#include <climits>
#include <vector>

#include "device/registry.hpp"

namespace veltrix::spi {

SpiState& state() {
  // Never destroyed: a reader thread or an exchange may still run at exit.
  static SpiState* s = new SpiState;
  return *s;
}

int slot_of(int handle) {
  int slot = usb_list_get_index(uint32_t(handle));
  return slot >= 0 && slot < kSlots ? slot : -1;
}

int spi_code(Transport t) {
  switch (t) {
    case Transport::Ok:
      return SPI_SUCCESS;
    case Transport::WriteFailed:
      return SPI_ERR_SEND;
    default:
      return SPI_ERR_REPLY;
  }
}

int ack_exchange(int handle, uint32_t cmd, std::span<const uint8_t> payload, int timeout_ms,
                 int send_timeout_ms) {
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  ExchangeResult r = exchange(uint32_t(handle), {.cmd = cmd,
                                                 .payload = payload,
                                                 .timeout_ms = timeout_ms,
                                                 .send_timeout_ms = send_timeout_ms});
  if (int code = spi_code(r.code)) return code;
  return r.reply_len == 0 ? SPI_SUCCESS : SPI_ERR_REPLY;
}

int data_exchange(int handle, uint32_t cmd, std::span<const uint8_t> payload,
                  std::span<uint8_t> out, int timeout_ms) {
  if (slot_of(handle) < 0) return SPI_ERR_SEND;
  // Received apart from the caller's buffer, which is written only on a complete reply.
  std::vector<uint8_t> reply(out.size());
  ExchangeResult r = exchange(
      uint32_t(handle), {.cmd = cmd, .payload = payload, .reply = reply, .timeout_ms = timeout_ms});
  if (int code = spi_code(r.code)) return code;
  if (r.reply_len != out.size()) return SPI_ERR_REPLY;
  std::copy(reply.begin(), reply.end(), out.begin());
  return SPI_SUCCESS;
}

bool valid_length(int64_t len, const void* data) {
  if (len < 0 || len > int64_t(SPI_MAX_TRANSFER)) return false;
  return len == 0 || data != nullptr;
}

int plus_ms(int64_t base, int64_t margin) {
  return int(std::clamp<int64_t>(base + margin, 1, INT_MAX));
}

}  // namespace veltrix::spi
