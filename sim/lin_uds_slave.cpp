#include "sim/lin_uds_slave.hpp"

#include <algorithm>

namespace veltrix::sim {
namespace {
constexpr uint8_t kNegative = 0x7F;
constexpr uint8_t kResponsePending = 0x78;
const char kIdentifier[] = "VLTX0000000000017";  // 17 characters
}  // namespace

LinUdsSlave::Bytes LinUdsSlave::default_answer(const Bytes& req) {
  if (req.empty()) return {};
  if (req.size() == 3 && req[0] == 0x22 && req[1] == 0xF1 && req[2] == 0x90) {
    Bytes r{0x62, 0xF1, 0x90};
    r.insert(r.end(), kIdentifier, kIdentifier + 17);
    return r;
  }
  Bytes r = req;
  r[0] = uint8_t(req[0] + 0x40);
  return r;
}

void LinUdsSlave::on_request_frame(const uint8_t* d) {
  if (!enabled || (d[0] != nad && d[0] != kBroadcastNad)) return;
  const uint8_t pci = d[1];
  switch (pci >> 4) {
    case 0: {
      const size_t n = std::min<size_t>(pci & 0x0F, 6);
      answer(Bytes(d + 2, d + 2 + n));
      break;
    }
    case 1:
      rx_expected_ = size_t(pci & 0x0F) << 8 | d[2];
      rx_.assign(d + 3, d + 3 + std::min<size_t>(5, rx_expected_));
      rx_seq_ = 1;
      break;
    case 2:
      if (rx_expected_ == 0 || (pci & 0x0F) != rx_seq_) {
        rx_expected_ = 0;  // out of sequence: the request is dropped
        rx_.clear();
        break;
      }
      rx_.insert(rx_.end(), d + 2, d + 2 + std::min<size_t>(6, rx_expected_ - rx_.size()));
      rx_seq_ = uint8_t((rx_seq_ + 1) & 0x0F);
      if (rx_.size() >= rx_expected_) {
        rx_expected_ = 0;
        answer(rx_);
      }
      break;
    default:
      break;
  }
}

void LinUdsSlave::answer(const Bytes& req) {
  requests.push_back(req);
  outbox.clear();
  auto it = responses.find(req);
  Bytes resp = it != responses.end() ? it->second : default_answer(req);
  if (resp.empty()) return;
  pending_left_ = pending_before_answer;
  deferred_ = resp;
  if (pending_left_ == 0) {
    queue_segmented(deferred_);
    deferred_.clear();
  }
}

void LinUdsSlave::queue_segmented(const Bytes& r) {
  auto frame = [this](std::initializer_list<uint8_t> head, const uint8_t* p, size_t n) {
    Bytes f(8, 0xFF);
    f[0] = nad;
    std::copy(head.begin(), head.end(), f.begin() + 1);
    std::copy(p, p + n, f.begin() + 1 + head.size());
    outbox.push_back(f);
  };
  if (r.size() <= 6) {
    frame({uint8_t(r.size())}, r.data(), r.size());
    return;
  }
  const size_t len = std::min<size_t>(r.size(), 4095);
  frame({uint8_t(0x10 | len >> 8), uint8_t(len)}, r.data(), 5);
  uint8_t seq = 1;
  int index = 0;
  for (size_t at = 5; at < len; at += 6, ++seq, ++index) {
    uint8_t sn = seq & 0x0F;
    if (wrong_sequence && index == 1) sn = uint8_t((sn + 1) & 0x0F);
    frame({uint8_t(0x20 | sn)}, r.data() + at, std::min<size_t>(6, len - at));
  }
}

std::optional<LinUdsSlave::Bytes> LinUdsSlave::next_response_frame() {
  if (!enabled) return std::nullopt;
  if (outbox.empty() && pending_left_ > 0) {
    // Each poll while the answer is held back gets one response-pending frame.
    --pending_left_;
    const uint8_t sid = requests.empty() || requests.back().empty() ? 0 : requests.back()[0];
    outbox.push_back({nad, 0x03, kNegative, sid, kResponsePending, 0xFF, 0xFF, 0xFF});
    if (pending_left_ == 0) {
      queue_segmented(deferred_);
      deferred_.clear();
    }
  }
  if (outbox.empty()) return std::nullopt;
  Bytes f = outbox.front();
  outbox.pop_front();
  return f;
}

}  // namespace veltrix::sim
