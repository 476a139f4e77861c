// Periodic schedules kept by the adapter: loading the tables (one command for small sets,
// the schedule flash for large ones), starting and stopping them, for the classic ports
// (0x0C05-0x0C08) and the CAN FD ports (0x4006, 0x4007, 0x400B).
#include <array>
#include <cstdio>
#include <numeric>
#include <span>
#include <vector>

#include "can/can_state.hpp"
#include "can/fd_element.hpp"
#include "can/frame_codec.hpp"
#include "can/schedule_image.hpp"
#include "device/abi.hpp"
#include "device/wire.hpp"
#include "veltrix/canfd.h"
#include "veltrix/device.h"

namespace veltrix::can {
namespace {

struct ScheduleCommands {
  uint32_t load;
  uint32_t start;
  uint32_t stop;
  size_t command_limit;  // larger sets go to the schedule flash
};

constexpr ScheduleCommands kClassic{0x0C08, 0x0C05, 0x0C06, 10239};
constexpr ScheduleCommands kFd{0x400B, 0x4006, 0x4007, 0x7FFF};

// Storing a set of tables takes the adapter a while.
constexpr int kLoadReplyTimeoutMs = 5000;

// A command answered by one status byte, 0 for success. A refusal is printed the way
// the adapter's tools always have.
int status_reply(uint32_t h, uint32_t cmd, std::span<const uint8_t> payload, int reply_ms) {
  std::array<uint8_t, 1> status{0xFF};
  ExchangeResult r =
      exchange(h, {.cmd = cmd, .payload = payload, .reply = status, .timeout_ms = reply_ms});
  if (r.code == Transport::WriteFailed) return CAN_ERR_USB_WRITE_FAIL;
  if (r.ok() && r.copied >= 1 && status[0] == 0) return CAN_SUCCESS;
  std::printf("res = %d ret = %d\n", int(status[0]), r.value());
  return CAN_ERR_USB_READ_FAIL;
}

// Loads a set whose frames are already in the adapter's form.
int load(uint32_t h, uint8_t port, std::span<const uint8_t> frames, const uint8_t* counts,
         const uint8_t* params, uint8_t tables, const ScheduleCommands& k) {
  const size_t size = frames.size() + 3 * size_t(tables) + 2;
  if (size > k.command_limit) {
    const uint32_t base = schedule_base(port);
    std::vector<uint8_t> image =
        schedule_image(base, {counts, tables}, {params, 2u * tables}, frames);
    if (!DEV_EraseSchData(h, base)) return CAN_ERR_USB_READ_FAIL;
    if (!DEV_WriteSchData(h, base, image.data(), int(image.size()))) return CAN_ERR_USB_READ_FAIL;
    return CAN_SUCCESS;
  }
  wire::PayloadBuilder p(size);
  p.u8(port).u8(tables).bytes(counts, tables).bytes(params, 2u * tables).bytes(frames);
  return status_reply(h, k.load, p.span(), kLoadReplyTimeoutMs);
}

size_t total_frames(const uint8_t* counts, uint8_t tables) {
  return std::accumulate(counts, counts + tables, size_t(0));
}

bool tables_ok(const void* frames, const uint8_t* counts, const uint8_t* params, uint8_t tables) {
  return tables == 0 || (frames && counts && params);
}

int set_fd(uint32_t h, uint8_t port, const CANFD_MSG* frames, const uint8_t* counts,
           const uint8_t* params, uint8_t tables) {
  if (!tables_ok(frames, counts, params, tables)) return CANFD_ERR_PARAMETER;
  if (!slot_of(h)) return CANFD_ERR_USB_WRITE_FAIL;
  const size_t n = tables ? total_frames(counts, tables) : 0;
  std::vector<uint8_t> bytes(n * kElementMax);
  size_t at = 0;
  // A schedule frame's time fields carry its timing value for the adapter.
  for (size_t i = 0; i < n; ++i) at += encode_element(frames[i], 0, true, bytes.data() + at);
  bytes.resize(at);
  return load(h, port, bytes, counts, params, tables, kFd);
}

int set_classic(uint32_t h, uint8_t port, const CAN_MSG* frames, const uint8_t* counts,
                const uint8_t* params, uint8_t tables) {
  if (!tables_ok(frames, counts, params, tables)) return CAN_ERR_PARAMETER;
  if (!slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
  const size_t n = tables ? total_frames(counts, tables) : 0;
  if (is_canfd_model(h)) {
    std::vector<CANFD_MSG> fd(n);
    CAN2CANFD(frames, fd.data(), int(n));
    // The conversion scales times by 10; a timing value is no time and goes back as given.
    for (size_t i = 0; i < n; ++i) {
      fd[i].TimeStamp = frames[i].TimeStamp;
      fd[i].TimeStampHigh = frames[i].TimeStampHigh;
    }
    return set_fd(h, port, fd.data(), counts, params, tables);
  }
  std::vector<uint8_t> bytes(n * kRecordSize);
  for (size_t i = 0; i < n; ++i) encode_frame(frames[i], bytes.data() + i * kRecordSize);
  return load(h, port, bytes, counts, params, tables, kClassic);
}

int start(uint32_t h, uint8_t port, uint8_t o1, uint8_t o2, uint8_t o3, const ScheduleCommands& k) {
  if (!slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
  const uint8_t payload[4] = {port, o1, o2, o3};
  return status_reply(h, k.start, payload, kDefaultTimeoutMs);
}

// The adapter answers a stop; what it answers does not matter.
int stop(uint32_t h, uint8_t port, const ScheduleCommands& k) {
  if (!slot_of(h)) return CAN_ERR_USB_WRITE_FAIL;
  const uint8_t payload[1] = {port};
  std::array<uint8_t, 16> reply{};
  return map_result(exchange(h, {.cmd = k.stop, .payload = payload, .reply = reply}));
}

const ScheduleCommands& commands_for(uint32_t h) { return is_canfd_model(h) ? kFd : kClassic; }

}  // namespace

uint32_t schedule_base(uint8_t port) { return (uint32_t(port) + 1030u) * 0x20000u; }

std::vector<uint8_t> schedule_image(uint32_t base, std::span<const uint8_t> counts,
                                    std::span<const uint8_t> params,
                                    std::span<const uint8_t> frames) {
  std::vector<uint8_t> image(kScheduleHeader + frames.size(), 0xFF);
  uint8_t* p = image.data();
  wire::put_le32(p + kImgMagic, kScheduleMagic);
  wire::put_le32(p + kImgTables, uint32_t(counts.size()));
  std::copy(counts.begin(), counts.end(), p + kImgCounts);
  std::copy(params.begin(), params.end(), p + kImgParams);
  wire::put_le32(p + kImgFramesAddr, base + uint32_t(kScheduleHeader));
  std::copy(frames.begin(), frames.end(), p + kScheduleHeader);
  return image;
}

}  // namespace veltrix::can

using namespace veltrix;

extern "C" {

VELTRIX_EXPORT(int, CAN_SetSchedule,
               (unsigned int h, unsigned char port, CAN_MSG* frames, unsigned char* counts,
                unsigned char* params, unsigned char tables),
               CAN_ERR_USB_READ_FAIL,
               { return can::set_classic(h, port, frames, counts, params, tables); })

VELTRIX_EXPORT(int, CANFD_SetSchedule,
               (unsigned int h, unsigned char port, CANFD_MSG* frames, unsigned char* counts,
                unsigned char* params, unsigned char tables),
               CANFD_ERR_USB_READ_FAIL,
               { return can::set_fd(h, port, frames, counts, params, tables); })

VELTRIX_EXPORT(int, CAN_StartSchedule,
               (unsigned int h, unsigned char port, unsigned char o1, unsigned char o2,
                unsigned char o3),
               CAN_ERR_USB_READ_FAIL,
               { return can::start(h, port, o1, o2, o3, can::commands_for(h)); })

VELTRIX_EXPORT(int, CANFD_StartSchedule,
               (unsigned int h, unsigned char port, unsigned char o1, unsigned char o2,
                unsigned char o3),
               CANFD_ERR_USB_READ_FAIL, { return can::start(h, port, o1, o2, o3, can::kFd); })

VELTRIX_EXPORT(int, CAN_StopSchedule, (unsigned int h, unsigned char port), CAN_ERR_USB_READ_FAIL,
               { return can::stop(h, port, can::commands_for(h)); })

VELTRIX_EXPORT(int, CANFD_StopSchedule, (unsigned int h, unsigned char port),
               CANFD_ERR_USB_READ_FAIL, { return can::stop(h, port, can::kFd); })

}  // extern "C"
