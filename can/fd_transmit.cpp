// CAN FD batch send (0x4002, 128 frames per command): the adapter queues the batch, the
// host follows its progress (0x400A) and then reads back one transmit event per frame on
// the bus (0x4009), which it writes into the caller's records.
#include "can/fd_transmit.hpp"

#include <algorithm>
#include <chrono>
#include <vector>

#include "can/fd_config.hpp"
#include "can/fd_element.hpp"
#include "can/fd_state.hpp"
#include "device/abi.hpp"
#include "device/wire.hpp"

namespace veltrix::can {
namespace {

constexpr uint32_t kCmdSend = 0x4002;
constexpr uint32_t kCmdEvents = 0x4009;
constexpr size_t kSendHeader = 12;  // 10 zero bytes, port, frame count
constexpr uint32_t kChunk = CANFD_SEND_CHUNK;

int64_t progress_budget_ms(uint32_t frames) { return int64_t(frames) * 100 + 1000; }

// A frame longer than a classic one is sent with the bit rate switch; the caller sees the
// flag it was sent with.
void apply_brs_rule(CANFD_MSG& m) {
  if (m.DLC > 8) m.Flags |= CANFD_MSG_FLAG_BRS;
}

enum class Progress { Done, Aborted, NothingSent, OutOfTime };

struct ChunkProgress {
  int code = CANFD_SUCCESS;
  Progress state = Progress::OutOfTime;
};

// Follows the adapter's progress on the batch until it is on the bus, aborted, or the
// budget is spent. The adapter answers at once, so there is no pause between queries.
ChunkProgress follow(uint32_t h, uint8_t port, uint32_t frames) {
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    CANFD_TX_INFO info{};
    int r = fd_tx_info(h, port, &info);
    if (r != CANFD_SUCCESS) return {r, Progress::OutOfTime};
    if (info.Aborted) return {0, info.SentCount ? Progress::Aborted : Progress::NothingSent};
    if (info.QueuedCount == info.SentCount)
      return {0, info.SentCount ? Progress::Done : Progress::OutOfTime};
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::steady_clock::now() - start)
                       .count();
    if (elapsed >= progress_budget_ms(frames)) return {0, Progress::OutOfTime};
  }
}

// Reads the transmit events and writes event i into frames[i]. Returns the number of
// events written, or a negative code. Events beyond the batch have no frame to go to
// and are not counted.
int read_events(uint32_t h, uint8_t port, std::span<CANFD_MSG> frames) {
  const uint8_t payload[1] = {port};
  std::vector<uint8_t> reply(frames.size() * kElementHeader);
  ExchangeResult r =
      exchange(h, {.cmd = kCmdEvents, .payload = payload, .reply = reply, .canfd_channel = port});
  if (!r.ok()) return fd_map_result(r);
  const size_t n = std::min(r.copied / kElementHeader, frames.size());
  const uint8_t port_flag = uint8_t((port << 5) & 0x60) | CANFD_MSG_FLAG_TX_ECHO;
  for (size_t i = 0; i < n; ++i) {
    const uint8_t* e = reply.data() + i * kElementHeader;
    CANFD_MSG& m = frames[i];
    m.ID = decode_id_word(wire::get_le32(e), e[4]);
    m.Flags = uint8_t(port_flag | element_flags(e));
    m.TimeStampHigh = e[6];
    m.TimeStamp = wire::get_le32(e + 8);
  }
  return int(n);
}

}  // namespace

std::vector<uint8_t> build_send_payload(uint8_t port, std::span<CANFD_MSG> chunk) {
  wire::PayloadBuilder p(kSendHeader + chunk.size() * kElementMax);
  p.zeros(10).u8(port).u8(uint8_t(chunk.size()));
  uint8_t element[kElementMax];
  for (size_t i = 0; i < chunk.size(); ++i) {
    apply_brs_rule(chunk[i]);
    p.bytes(element, encode_element(chunk[i], uint8_t(i), false, element));
  }
  return std::move(p.vec());
}

int send_fd_frames(uint32_t h, uint8_t port, CANFD_MSG* frames, uint32_t count) {
  if (count == 0) return 0;
  if (frames == nullptr) return CANFD_ERR_PARAMETER;
  if (!fd_slot_of(h)) return CANFD_ERR_USB_WRITE_FAIL;
  int total = 0;
  for (uint32_t at = 0; at < count; at += kChunk) {
    std::span<CANFD_MSG> chunk(frames + at, std::min(kChunk, count - at));
    std::vector<uint8_t> payload = build_send_payload(port, chunk);
    // The adapter's answer to the batch carries nothing the host uses.
    std::vector<uint8_t> echo(payload.size());
    ExchangeResult r =
        exchange(h, {.cmd = kCmdSend, .payload = payload, .reply = echo, .canfd_channel = port});
    if (!r.ok()) return fd_map_result(r);
    ChunkProgress pr = follow(h, port, uint32_t(chunk.size()));
    if (pr.code != CANFD_SUCCESS) return pr.code;
    if (pr.state == Progress::NothingSent) return total;
    if (pr.state == Progress::OutOfTime) continue;  // nothing read back for this batch
    int events = read_events(h, port, chunk);
    if (events < 0) return events;
    total += events;
    if (pr.state == Progress::Aborted) return total;
  }
  return total;
}

}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, CANFD_SendMsg,
               (unsigned int h, unsigned char port, CANFD_MSG* frames, unsigned int count),
               CANFD_ERR_USB_READ_FAIL, { return can::send_fd_frames(h, port, frames, count); })

}  // extern "C"
