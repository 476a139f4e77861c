// Raw transfers to and from the adapter's parameter memory.
#include <algorithm>
#include <array>
#include <vector>

#include "device/abi.hpp"
#include "device/param_store.hpp"
#include "device/transport.hpp"
#include "device/wire.hpp"
#include "veltrix/device.h"

namespace veltrix::param {
namespace {

constexpr uint32_t kCmdInit = 0x5000;
constexpr uint32_t kCmdWrite = 0x5001;
constexpr uint32_t kCmdRead = 0x5002;

// Reply status bytes.
constexpr uint8_t kStatusDone = 0;
constexpr uint8_t kStatusRefused = 1;

// The adapter needs time proportional to the bytes it moves in parameter memory.
int write_timeout_ms(size_t chunk) { return int(chunk * 20 / 64) + 1000; }
int read_timeout_ms(size_t chunk) { return int(chunk * 10 / 64) + 1000; }

// The family's table: a command that could not be sent, and every reply fault.
int transport_code(const ExchangeResult& r) {
  switch (r.code) {
    case Transport::Ok:
      return ARG_SUCCESS;
    case Transport::WriteFailed:
      return ARG_ERR_SEND;
    default:
      return ARG_ERR_REPLY;
  }
}

// Address of chunk k: the previous chunk's address plus k chunks, i.e. plus the running
// total already moved. Callers keep transfers within one chunk; the stepping is kept as
// programs expect it. The address field is 16 bits wide and wraps.
template <typename Step>
int chunked(uint16_t addr, size_t total, Step step) {
  for (size_t k = 0, done = 0; done < total; ++k, done += ARG_CHUNK) {
    addr = uint16_t(addr + k * ARG_CHUNK);
    int rc = step(addr, done, std::min<size_t>(ARG_CHUNK, total - done));
    if (rc != ARG_SUCCESS) return rc;
  }
  return ARG_SUCCESS;
}

}  // namespace

int init(uint32_t h) {
  std::array<uint8_t, 1> status{};
  ExchangeResult r = exchange(h, {.cmd = kCmdInit, .reply = status});
  if (!r.ok()) return transport_code(r);
  if (r.reply_len != 1) return ARG_ERR_REPLY;
  return status[0] == kStatusDone ? ARG_SUCCESS : ARG_ERR_REFUSED;
}

int write(uint32_t h, uint16_t addr, std::span<const uint8_t> data) {
  return chunked(addr, data.size(), [&](uint16_t at, size_t offset, size_t n) {
    wire::PayloadBuilder p(2 + n);
    p.be16(at).bytes(data.subspan(offset, n));
    std::array<uint8_t, 1> status{};
    ExchangeResult r = exchange(h, {.cmd = kCmdWrite, .payload = p.span(), .reply = status,
                                    .timeout_ms = write_timeout_ms(n)});
    if (!r.ok()) return transport_code(r);
    if (r.reply_len != 1) return ARG_ERR_REPLY;
    if (status[0] == kStatusDone) return ARG_SUCCESS;
    return status[0] == kStatusRefused ? ARG_ERR_REFUSED : ARG_ERR_WRITE;
  });
}

int read(uint32_t h, uint16_t addr, std::span<uint8_t> out) {
  return chunked(addr, out.size(), [&](uint16_t at, size_t offset, size_t n) {
    wire::PayloadBuilder p(4);
    p.be16(at).be16(uint16_t(n));
    // Status byte, then the chunk.
    std::vector<uint8_t> reply(1 + n);
    ExchangeResult r = exchange(h, {.cmd = kCmdRead, .payload = p.span(), .reply = reply,
                                    .timeout_ms = read_timeout_ms(n)});
    if (!r.ok()) return transport_code(r);
    if (r.reply_len == 0) return ARG_ERR_REPLY;
    if (reply[0] == kStatusRefused) return ARG_ERR_REFUSED;
    if (reply[0] != kStatusDone) return ARG_ERR_READ;
    if (r.reply_len != 1 + n) return ARG_ERR_REPLY;
    std::copy_n(reply.begin() + 1, n, out.begin() + ptrdiff_t(offset));
    return ARG_SUCCESS;
  });
}

}  // namespace veltrix::param

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, ARG_Init, (unsigned int h), ARG_ERR_REPLY, { return param::init(h); })

VELTRIX_EXPORT(int, ARG_Write,
               (unsigned int h, unsigned short addr, const unsigned char* data, unsigned short len),
               ARG_ERR_REPLY, {
                 if (len == 0) return ARG_SUCCESS;
                 if (data == nullptr) return ARG_ERR_PARAMETER;
                 return param::write(h, addr, {data, len});
               })

VELTRIX_EXPORT(int, ARG_Read,
               (unsigned int h, unsigned short addr, unsigned char* out, unsigned short len),
               ARG_ERR_REPLY, {
                 if (len == 0) return ARG_SUCCESS;
                 if (out == nullptr) return ARG_ERR_PARAMETER;
                 return param::read(h, addr, {out, len});
               })

}  // extern "C"
