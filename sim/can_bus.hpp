// The adapter's classic CAN controllers: two ports joined by a virtual cable.
//
// Each port has a bit rate derived from the timing values it was started with and the
// model's controller clock (0x4. serials 42 MHz, 0x5. serials 40 MHz, others 100 MHz),
// the option flags, 14 filter banks, error counters, a receive FIFO and the progress of
// its last transmit batch. A frame sent on one port is received by the other when both
// run at the same rate and the receiver's filters accept it; a port without a peer at
// its rate has nobody to acknowledge its frames: each one counts as an acknowledgement
// error (transmit error counter +8, held at 128 once error passive) and is not sent.
//
// Firmware conventions of the model:
//   - a port on which no filter bank is enabled accepts every frame;
//   - frame times are the device counter (100 us units), 40 bits wide;
//   - a refused command (bad payload, a port beyond 1) answers one status byte 0x01
//     where an empty acknowledgement was due, and an empty reply where data was due;
//   - the receive FIFO holds kRxFifoDepth frames; when full it drops its oldest frame,
//     or the new one when the port was started with the FIFO locked.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "sim/can_controller.hpp"
#include "sim/model.hpp"

namespace veltrix::sim {

inline constexpr size_t kCanBanks = 14;
inline constexpr size_t kRxFifoDepth = 20000;
inline constexpr size_t kReadBatchMax = 2000;

// One frame as the controller sees it.
struct CanFrame {
  uint32_t id = 0;
  bool ext = false;
  bool rtr = false;
  uint8_t len = 0;
  std::array<uint8_t, 8> data{};
  uint64_t time = 0;  // 100 us units, 40 bits
};

struct CanFilterBank {
  bool enabled = false;
  bool list_mode = false;
  uint32_t id = 0;    // register form: high half << 16 | low half
  uint32_t mask = 0;
};

struct CanPortModel {
  bool running = false;
  uint32_t bit_rate = 0;  // 0 while stopped or with unusable timing
  uint8_t mode = 0;
  bool auto_bus_off_recovery = false;
  bool no_auto_retransmit = false;
  bool rx_fifo_locked = false;
  bool tx_fifo_order = false;
  std::array<CanFilterBank, kCanBanks> banks{};

  uint8_t tec = 0;
  uint8_t rec = 0;
  bool bus_off = false;
  uint8_t last_error = 0;  // 3: acknowledgement error

  std::deque<CanFrame> rx;
  uint64_t rx_overruns = 0;
  std::deque<CanFrame> sent;  // the last kSentLog frames this port put on the bus

  // Progress of the last batch (0x0C02 or 0x0C0A), reported by 0x0C0B.
  uint32_t queued = 0;
  uint32_t delivered = 0;
  bool aborted = false;
  // Test hook: the next batch aborts after this many frames (-1: none).
  int abort_after = -1;
};

// A node of the bus besides the two ports (a virtual ECU). While present it acknowledges
// frames at any bit rate, so a port needs no running peer; it sees every frame a port puts
// on the bus, after delivery, and may answer with can_deliver(). Both run under
// sim_mutex().
struct CanNode {
  std::function<bool(Model& m)> present;
  std::function<void(Model& m, unsigned from_port, const CanFrame& f)> on_frame;
};

struct CanBusState {
  std::array<CanPortModel, kCanPorts> ports{};
  bool cable = true;  // ports 0 and 1 joined
  std::vector<CanNode> nodes;
};

// The adapter's CAN state (take sim_mutex() from a test thread).
CanBusState& can_bus(Model& m);

// Controller clock of the model in Hz.
uint32_t can_clock_hz(const Model& m);

// Test hooks; each takes sim_mutex() itself.
// Places frames in the port's receive FIFO as received, in the order given (times as
// given), bypassing the filters.
void can_inject_rx(Model& m, unsigned port, const std::vector<CanFrame>& frames);
// The port goes bus-off: it sends nothing until it is started again, or, with automatic
// recovery, until its next transmit request.
void can_force_bus_off(Model& m, unsigned port);
// The port's next batch aborts after n frames have reached the bus.
void can_abort_next_batch(Model& m, unsigned port, int n);

// A frame another node put on the bus, received by the port (caller holds sim_mutex()):
// stamped with the current time and filtered like any other.
void can_deliver(Model& m, unsigned port, CanFrame f);
// Used by the CAN FD controllers and the schedule runner (sim_mutex() held).
// The frame of a 20-byte record (time not taken).
CanFrame can_decode_record(const uint8_t* p);
enum class ClassicOffer { NotThere, Taken, FormError };
// Offers a frame sent by the adapter's CAN FD port at nominal rate `rate` to classic port
// `port`: NotThere when that port is stopped or runs another rate; FormError for an
// FD-format frame, which the classic port counts as a receive error.
ClassicOffer can_offer_from_fd(Model& m, unsigned port, const CanFrame& f, bool fd_format,
                               uint32_t rate);
// Puts one frame on the bus from classic port `from` outside any batch; false when it
// could not be sent.
bool can_put_on_bus(Model& m, unsigned from, CanFrame f);

void install_can(Model& m);

}  // namespace veltrix::sim
