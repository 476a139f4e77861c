// The CAN FD controllers of the 40 MHz adapter models (serials 0x5.......): two ports on
// the same virtual cable as the adapter's classic ports.
//
// A port started with 0x4000 runs a nominal rate of 40 MHz / (prescaler x (1 + Seg1 +
// Seg2)) and, when its data prescaler is set, a data-phase rate computed the same way. A
// frame from an FD port reaches the other port when that port runs at the same nominal
// rate: an FD port receives every frame (a frame with BRS only if the data rates match
// too), a classic port receives classic-format frames only. An FD-format frame offered to
// a classic port breaks its frame format: the classic receiver counts a form error, the
// transmitter sees an error and the frame is not delivered. Nobody at the rate: an
// acknowledgement error, the frame and the rest of the batch stay pending (given up when
// the port was started without automatic retransmission).
//
// Firmware conventions of the model:
//   - a port without an enabled filter accepts every frame; a filter accepts a frame
//     whose word (id | RTR << 30 | IDE << 31) matches the filter's ID under its Mask;
//   - frame times are the device counter in 10 us units, 40 bits wide;
//   - every frame put on the bus leaves a transmit event (0x4009 returns and forgets
//     them); the receive FIFO keeps kFdRxFifoDepth frames and drops its oldest;
//   - a refused command answers one status byte 0x01 where an empty acknowledgement was
//     due, and an empty reply where data was due;
//   - diagnostic record (0x4004): TEC, REC, last error code, state flags (bit 0 warning,
//     1 passive, 2 bus-off), frames lost by the receive FIFO (32-bit).
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "sim/can_bus.hpp"
#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr size_t kFdRxFifoDepth = 20000;
inline constexpr size_t kFdReadReplyMax = 20480;

struct FdFrame {
  uint32_t id = 0;  // 11 or 29 bits
  bool ext = false;
  bool rtr = false;
  bool fdf = false;
  bool brs = false;
  bool esi = false;
  uint8_t len = 0;  // data bytes, a CAN FD length
  std::array<uint8_t, 64> data{};
  uint64_t time = 0;  // 10 us units, 40 bits
};

struct FdFilter {
  bool enabled = false;
  uint32_t id = 0;
  uint32_t mask = 0;
};

struct CanFdPortModel {
  bool running = false;
  uint32_t nominal_rate = 0;
  uint32_t data_rate = 0;
  uint8_t mode = 0;
  bool auto_retransmit = true;
  std::vector<FdFilter> filters;

  uint8_t tec = 0;
  uint8_t rec = 0;
  uint8_t last_error = 0;  // 2 form error, 3 acknowledgement error
  bool bus_off = false;

  std::deque<FdFrame> rx;
  uint32_t rx_overruns = 0;
  std::deque<FdFrame> sent;  // the last kSentLog frames this port put on the bus
  std::deque<FdFrame> events;

  // Progress of the last batch, reported by 0x400A.
  uint32_t queued = 0;
  uint32_t delivered = 0;
  bool aborted = false;
  // Test hooks: the next batch aborts after this many frames (-1: none); transmit events
  // are not kept.
  int abort_after = -1;
  int abort_skip = 0;  // batches that still go through before abort_after applies
  bool drop_events = false;
};

// A node of the FD bus besides the two ports (a virtual ECU): as CanNode, it acknowledges
// while present, sees every frame a port puts on the bus and may answer with
// canfd_deliver(). Both run under sim_mutex().
struct FdNode {
  std::function<bool(Model& m)> present;
  std::function<void(Model& m, unsigned from_port, const FdFrame& f)> on_frame;
};

struct CanFdState {
  std::array<CanFdPortModel, kCanPorts> ports{};
  std::vector<FdNode> nodes;
};

// The adapter's CAN FD state (take sim_mutex() from a test thread).
CanFdState& canfd_bus(Model& m);

// Test hooks; each takes sim_mutex() itself.
// The port's batch after `skip` more batches aborts after n frames (-1: none).
void canfd_abort_next_batch(Model& m, unsigned port, int n, int skip = 0);
void canfd_drop_events(Model& m, unsigned port, bool drop);

// Used by the classic controller and the schedule runner (sim_mutex() held).
// Offers a classic frame sent on the other port at nominal rate `rate` to FD port
// `port`; false when that port is not there to take it (stopped or another rate).
bool canfd_offer_classic(Model& m, unsigned port, const CanFrame& f, uint32_t rate);
// Puts one frame on the bus from FD port `from` outside any batch; false when it could
// not be sent.
bool canfd_put_on_bus(Model& m, unsigned from, FdFrame f);
// A frame another node put on the bus, received by FD port `port` when it runs (caller
// holds sim_mutex()): stamped with the current time and filtered like any other.
void canfd_deliver(Model& m, unsigned port, FdFrame f);
// Frame element codec of the model (see the library's element layout).
size_t fd_decode_element(const uint8_t* p, size_t n, FdFrame& out);
void fd_encode_element(const FdFrame& f, bool echo, std::vector<uint8_t>& out);

void install_canfd(Model& m);

}  // namespace veltrix::sim
