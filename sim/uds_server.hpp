// A virtual ECU on the adapter's CAN bus: an ISO-TP endpoint (normal or extended
// addressing, its own block size and STmin, wait or overflow flow control on demand)
// answering a small set of diagnostic services:
//   0x10 session control        0x22 read data by identifier    0x2E write data by identifier
//   0x31 routine control        0x34/0x36/0x37 download (4 KB blocks)      0x3E tester present
// Anything else gets the negative response 7F sid 11. Routine 0xFF00 is slow: response-pending
// answers (7F 31 78) come before its result.
//
// It listens to the frames ports put on the classic and the CAN FD bus and answers on the
// port that asked, on the same bus. On the FD bus its frames are frame_length bytes (8 to
// 64; by default the tester's) and plan their payload by that length, in CAN FD format
// when the length is above 8 or the request came in that format. It is off until a test (or the
// launcher) enables it; change its settings under sim_mutex().
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "sim/can_bus.hpp"
#include "sim/canfd_bus.hpp"

namespace veltrix::sim {

// Data identifiers with fixed contents; the two long ones give a 4095-byte answer (the
// longest with a 12-bit length) and a 5000-byte one (escape length).
inline constexpr uint16_t kDidVin = 0xF190;
inline constexpr uint16_t kDidLong4095 = 0x4095;
inline constexpr uint16_t kDidLong5000 = 0x5000;
inline constexpr uint16_t kSlowRoutine = 0xFF00;
inline constexpr uint32_t kDownloadBlock = 4096;

class UdsServer {
 public:
  using Bytes = std::vector<uint8_t>;

  bool enabled = false;
  uint32_t rx_id = 0x7E0;  // frames it accepts
  uint32_t tx_id = 0x7E8;  // frames it sends
  bool ext_id = false;
  bool ext_addressing = false;
  uint8_t rx_address = 0xE0;  // first byte of accepted frames in extended addressing
  uint8_t tx_address = 0xF1;  // first byte of its frames in extended addressing
  uint8_t block_size = 0;     // its flow control to the tester
  uint8_t st_min = 0;
  int wait_frames = 0;    // wait flow controls before each continue
  bool overflow = false;  // answer first frames with overflow
  int slow_pending = 1;   // response-pending answers before a slow result
  bool echo = false;      // answer every request with its own bytes (transport tests)
  uint8_t pad = 0xAA;
  // On the FD bus: the length of its frames and of its planning; 0 takes the length of
  // the tester's last frame.
  uint8_t frame_length = 0;

  std::map<uint16_t, Bytes> dids;
  std::vector<Bytes> requests;  // complete requests, oldest first
  Bytes image;                  // what the download sessions transferred

  UdsServer();
  void on_frame(Model& m, unsigned port, const CanFrame& f);
  void on_fd_frame(Model& m, unsigned port, const FdFrame& f);

 private:
  // One received frame of either bus, data up to 64 bytes.
  struct Heard {
    uint32_t id;
    bool ext;
    uint8_t len;
    const uint8_t* data;
  };
  void on_heard(Model& m, unsigned port, const Heard& f);
  void on_request(Model& m, unsigned port, const Bytes& req);
  Bytes service(const Bytes& req, bool* slow);
  void send_message(Model& m, unsigned port, const Bytes& msg);
  void send_block(Model& m, unsigned port, uint8_t block_size);
  void send_fc(Model& m, unsigned port, uint8_t status);
  void send_frame(Model& m, unsigned port, const Bytes& bytes);
  // Its frame length on the bus of the current exchange, and the payload each frame
  // kind carries there.
  uint8_t length() const;
  uint8_t x() const { return ext_addressing ? 1 : 0; }
  uint32_t single_max() const { return length() > 8 ? length() - 2u - x() : 7u - x(); }
  uint32_t consecutive() const { return length() - 1u - x(); }

  bool fd_ = false;       // the exchange runs on the FD bus
  bool fd_fdf_ = false;   // the tester's last frame was in CAN FD format
  bool fd_brs_ = false;   // ... with bit rate switching
  uint8_t fd_heard_ = 8;  // ... and its length

  Bytes rx_;
  uint32_t rx_total_ = 0;
  uint8_t rx_seq_ = 0;
  uint32_t rx_block_ = 0;
  bool rx_active_ = false;

  Bytes tx_;
  size_t tx_at_ = 0;
  uint8_t tx_seq_ = 0;
  bool tx_active_ = false;

  bool downloading_ = false;
  uint8_t block_counter_ = 0;
};

UdsServer& uds_server(Model& m);
void install_uds_server(Model& m);

}  // namespace veltrix::sim
