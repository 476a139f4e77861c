// UART channels: line set-up, writes (waited, queued, paced) and polled reads.
#include "veltrix/uart.h"

#include <chrono>
#include <thread>

#include "device/abi.hpp"
#include "device/wire.hpp"
#include "peripherals/command.hpp"

namespace veltrix::uart {
namespace {

constexpr uint32_t kCmdInit = 0xA00;
constexpr uint32_t kCmdWrite = 0xA01;
constexpr uint32_t kCmdWriteAsync = 0xA02;
constexpr uint32_t kCmdRead = 0xA03;
constexpr uint32_t kCmdClear = 0xA04;
constexpr uint32_t kCmdWriteInterval = 0xA05;

// The adapter answers a write once the bytes left the line, which takes a while at low
// baud rates.
constexpr int kWriteReplyMs = 5000;

bool bad_data(const unsigned char* data, int len) {
  return len < 0 || len > UART_WRITE_MAX_BYTES || (len > 0 && data == nullptr);
}

int write(uint32_t h, uint8_t ch, uint32_t cmd, const unsigned char* data, int len) {
  if (bad_data(data, len)) return UART_ERR_PARAMETER;
  wire::PayloadBuilder b(1 + size_t(len));
  b.u8(ch).bytes(data, size_t(len));
  return periph::ack(h, cmd, b.span(), kWriteReplyMs);
}

int write_interval(uint32_t h, uint8_t ch, const unsigned char* data, int len, uint8_t gap) {
  if (bad_data(data, len)) return UART_ERR_PARAMETER;
  wire::PayloadBuilder b(2 + size_t(len));
  b.u8(ch).u8(gap).bytes(data, size_t(len));
  return periph::ack(h, kCmdWriteInterval, b.span(),
                     periph::clamp_timeout(int64_t(gap) * len + kWriteReplyMs));
}

int init(uint32_t h, uint8_t ch, const UART_CONFIG* c) {
  if (c == nullptr) return UART_ERR_PARAMETER;
  wire::PayloadBuilder b(9);
  b.u8(ch).le32(c->BaudRate).u8(c->WordLength).u8(c->StopBits).u8(c->Parity).u8(c->TEPolarity);
  return periph::ack(h, kCmdInit, b.span());
}

// Each round is its own exchange: holding the adapter for the whole wait would stall every
// other family on it for up to `timeout` ms.
int read(uint32_t h, uint8_t ch, unsigned char* buf, int timeout) {
  if (buf == nullptr) return UART_ERR_PARAMETER;
  const uint8_t payload[1] = {ch};
  const int rounds = timeout < 1 ? 1 : timeout;
  for (int i = 0; i < rounds; ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    int n = periph::query(h, kCmdRead, payload, {buf, size_t(UART_READ_MAX_BYTES)});
    if (n != 0) return n;
  }
  return 0;
}

}  // namespace
}  // namespace veltrix::uart

using namespace veltrix;
using namespace veltrix::uart;

VELTRIX_EXPORT(int, UART_Init, (unsigned int h, unsigned char ch, const UART_CONFIG* c),
               UART_ERR_REPLY, { return init(h, ch, c); })

VELTRIX_EXPORT(int, UART_WriteBytes,
               (unsigned int h, unsigned char ch, const unsigned char* data, int len),
               UART_ERR_REPLY, { return write(h, ch, kCmdWrite, data, len); })

VELTRIX_EXPORT(int, UART_WriteBytesAsync,
               (unsigned int h, unsigned char ch, const unsigned char* data, int len),
               UART_ERR_REPLY, { return write(h, ch, kCmdWriteAsync, data, len); })

VELTRIX_EXPORT(int, UART_WriteBytesInterval,
               (unsigned int h, unsigned char ch, const unsigned char* data, int len,
                unsigned char gap),
               UART_ERR_REPLY, { return write_interval(h, ch, data, len, gap); })

VELTRIX_EXPORT(int, UART_ReadBytes,
               (unsigned int h, unsigned char ch, unsigned char* buf, int timeout), UART_ERR_REPLY,
               { return read(h, ch, buf, timeout); })

VELTRIX_EXPORT(int, UART_ClearData, (unsigned int h, unsigned char ch), UART_ERR_REPLY, {
  const uint8_t payload[1] = {ch};
  return periph::ack(h, kCmdClear, payload);
})
