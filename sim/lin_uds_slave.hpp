// A virtual diagnostic slave on a LIN bus: it takes requests on the master request frame
// (identifier 0x3C) addressed to its NAD, reassembles single/first/consecutive frames and
// answers on the slave response frame (0x3D), one frame per header the master sends.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace veltrix::sim {

inline constexpr uint8_t kDiagRequestId = 0x3C;
inline constexpr uint8_t kDiagResponseId = 0x3D;
inline constexpr uint8_t kBroadcastNad = 0x7F;

class LinUdsSlave {
 public:
  using Bytes = std::vector<uint8_t>;

  // Settable by tests (under sim_mutex()).
  bool enabled = true;
  uint8_t nad = 0x02;
  uint8_t check_type = 0;  // checksum of its response frames: 0 classic, 1 enhanced
  // Answers per complete request; a request not listed gets the default answer: a
  // positive response echoing the request (service + 0x40), or for 0x22 F1 90 a 17-byte
  // identifier.
  std::map<Bytes, Bytes> responses;
  int pending_before_answer = 0;  // this many 7F xx 78 frames come before each answer
  bool wrong_sequence = false;    // the second consecutive frame carries a wrong number

  // What the slave received and what it still has to send.
  std::vector<Bytes> requests;  // complete requests, oldest first
  std::deque<Bytes> outbox;     // 8-byte response frames (NAD first)

  // A request frame seen on the bus (8 data bytes).
  void on_request_frame(const uint8_t* data);
  // The data of the next response frame, if the slave has one to send.
  std::optional<Bytes> next_response_frame();

  static Bytes default_answer(const Bytes& request);

 private:
  void answer(const Bytes& request);
  void queue_segmented(const Bytes& response);

  Bytes rx_;             // request being reassembled
  size_t rx_expected_ = 0;
  uint8_t rx_seq_ = 0;
  int pending_left_ = 0;
  Bytes deferred_;       // the answer held back while response-pending frames go out
};

}  // namespace veltrix::sim
