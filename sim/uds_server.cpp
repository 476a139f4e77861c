#include "sim/uds_server.hpp"

#include <algorithm>

#include "device/wire.hpp"

namespace veltrix::sim {
namespace {

constexpr uint8_t kNegative = 0x7F;
constexpr uint8_t kPending = 0x78;
constexpr uint8_t kNotSupported = 0x11;
constexpr uint8_t kBadLength = 0x13;
constexpr uint8_t kSequenceError = 0x24;
constexpr uint8_t kOutOfRange = 0x31;
constexpr uint8_t kTransferAborted = 0x71;
constexpr uint8_t kWrongCounter = 0x73;

UdsServer::Bytes negative(uint8_t sid, uint8_t code) { return {kNegative, sid, code}; }

UdsServer::Bytes pattern(size_t n, uint8_t seed) {
  UdsServer::Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = uint8_t(i * 7 + seed);
  return b;
}

}  // namespace

UdsServer::UdsServer() {
  const char vin[] = "VLTX0SIMULATED001";
  dids[kDidVin] = Bytes(vin, vin + 17);
  dids[kDidLong4095] = pattern(4095 - 3, 1);
  dids[kDidLong5000] = pattern(5000 - 3, 2);
}

void UdsServer::on_frame(Model& m, unsigned port, const CanFrame& f) {
  if (!enabled || f.id != rx_id || f.ext != ext_id) return;
  fd_ = false;
  on_heard(m, port, {f.id, f.ext, std::min<uint8_t>(f.len, 8), f.data.data()});
}

void UdsServer::on_fd_frame(Model& m, unsigned port, const FdFrame& f) {
  if (!enabled || f.id != rx_id || f.ext != ext_id || f.rtr) return;
  fd_ = true;
  fd_fdf_ = f.fdf;
  fd_brs_ = f.brs;
  fd_heard_ = f.len;
  on_heard(m, port, {f.id, f.ext, std::min<uint8_t>(f.len, 64), f.data.data()});
}

void UdsServer::on_heard(Model& m, unsigned port, const Heard& f) {
  const uint8_t x = this->x();
  if (f.len < x + 1u || (x && f.data[0] != rx_address)) return;
  const uint8_t* d = f.data + x;
  const uint8_t avail = uint8_t(f.len - x);
  const uint8_t pci = d[0];
  switch (pci >> 4) {
    case 0: {  // single frame; an empty one carries no request
      // Frames longer than 8 carry the length in a byte of its own after 0x00.
      const bool escaped = pci == 0 && avail > 8 - x;
      const uint8_t at = escaped ? 2 : 1;
      const uint32_t n = escaped ? d[1] : pci & 0x0F;
      if (n == 0 || avail < at || n > uint32_t(avail - at)) return;
      rx_active_ = false;
      on_request(m, port, Bytes(d + at, d + at + n));
      return;
    }
    case 1: {
      if (avail < 2) return;
      uint32_t total = wire::get_be16(d) & 0x0FFF;
      size_t at = 2;
      if (total == 0) {
        if (avail < 6) return;
        total = wire::get_be32(d + 2);
        at = 6;
      }
      if (overflow || total > (1u << 20)) {
        send_fc(m, port, 2);
        return;
      }
      rx_.assign(d + at, d + std::min<size_t>(avail, at + total));
      rx_total_ = total;
      rx_seq_ = 1;
      rx_block_ = 0;
      rx_active_ = true;
      for (int i = 0; i < wait_frames; ++i) send_fc(m, port, 1);
      send_fc(m, port, 0);
      return;
    }
    case 2: {
      if (!rx_active_) return;
      if ((pci & 0x0F) != (rx_seq_ & 0x0F)) {
        rx_active_ = false;  // a broken transfer is dropped, as a real ECU does
        return;
      }
      ++rx_seq_;
      const size_t n = std::min<size_t>(avail - 1u, rx_total_ - rx_.size());
      rx_.insert(rx_.end(), d + 1, d + 1 + n);
      if (rx_.size() >= rx_total_) {
        rx_active_ = false;
        on_request(m, port, rx_);
        return;
      }
      if (block_size && ++rx_block_ == block_size) {
        rx_block_ = 0;
        for (int i = 0; i < wait_frames; ++i) send_fc(m, port, 1);
        send_fc(m, port, 0);
      }
      return;
    }
    case 3: {
      if (!tx_active_ || avail < 3) return;
      const uint8_t status = pci & 0x0F;
      if (status == 0) send_block(m, port, d[1]);
      if (status == 2) tx_active_ = false;
      return;
    }
    default:
      return;
  }
}

void UdsServer::on_request(Model& m, unsigned port, const Bytes& req) {
  requests.push_back(req);
  if (echo) {
    send_message(m, port, req);
    return;
  }
  bool slow = false;
  Bytes answer = service(req, &slow);
  if (answer.empty()) return;
  for (int i = 0; slow && i < slow_pending; ++i) send_message(m, port, negative(req[0], kPending));
  send_message(m, port, answer);
}

UdsServer::Bytes UdsServer::service(const Bytes& req, bool* slow) {
  const uint8_t sid = req[0];
  const size_t n = req.size();
  switch (sid) {
    case 0x10:
      if (n != 2) return negative(sid, kBadLength);
      return {0x50, req[1], 0x00, 0x32, 0x01, 0xF4};  // P2 50 ms, P2* 5 s
    case 0x22: {
      if (n != 3) return negative(sid, kBadLength);
      auto it = dids.find(wire::get_be16(&req[1]));
      if (it == dids.end()) return negative(sid, kOutOfRange);
      Bytes out{0x62, req[1], req[2]};
      out.insert(out.end(), it->second.begin(), it->second.end());
      return out;
    }
    case 0x2E:
      if (n < 4) return negative(sid, kBadLength);
      dids[wire::get_be16(&req[1])] = Bytes(req.begin() + 3, req.end());
      return {0x6E, req[1], req[2]};
    case 0x31:
      if (n < 4) return negative(sid, kBadLength);
      *slow = wire::get_be16(&req[2]) == kSlowRoutine;
      return {0x71, req[1], req[2], req[3], 0x00};
    case 0x34:
      if (n < 3) return negative(sid, kBadLength);
      downloading_ = true;
      block_counter_ = 1;
      // Length format 0x20: two bytes of maximum block length, counter and data.
      return {0x74, 0x20, uint8_t((kDownloadBlock + 2) >> 8), uint8_t(kDownloadBlock + 2)};
    case 0x36:
      if (!downloading_) return negative(sid, kSequenceError);
      if (n < 2) return negative(sid, kBadLength);
      if (req[1] != block_counter_) return negative(sid, kWrongCounter);
      if (n - 2 > kDownloadBlock) return negative(sid, kTransferAborted);
      image.insert(image.end(), req.begin() + 2, req.end());
      ++block_counter_;
      return {0x76, req[1]};
    case 0x37:
      if (!downloading_) return negative(sid, kSequenceError);
      downloading_ = false;
      return {0x77};
    case 0x3E:
      if (n != 2) return negative(sid, kBadLength);
      if (req[1] & 0x80) return {};  // suppress positive response
      return {0x7E, req[1]};
    default:
      return negative(sid, kNotSupported);
  }
}

void UdsServer::send_message(Model& m, unsigned port, const Bytes& msg) {
  const uint32_t x = this->x();
  if (msg.size() <= single_max()) {
    Bytes f = length() > 8 ? Bytes{0x00, uint8_t(msg.size())} : Bytes{uint8_t(msg.size())};
    f.insert(f.end(), msg.begin(), msg.end());
    send_frame(m, port, f);
    return;
  }
  Bytes f;
  size_t carry;
  if (msg.size() <= 4095) {
    f = {uint8_t(0x10 | msg.size() >> 8), uint8_t(msg.size())};
    carry = length() - 2 - x;
  } else {
    f = {0x10, 0, 0, 0, 0, 0};
    wire::put_be32(&f[2], uint32_t(msg.size()));
    carry = length() - 6 - x;
  }
  f.insert(f.end(), msg.begin(), msg.begin() + long(carry));
  send_frame(m, port, f);
  tx_ = msg;
  tx_at_ = carry;
  tx_seq_ = 1;
  tx_active_ = true;  // the rest goes when the tester's flow control arrives
}

// The frames up to the tester's block size (all when 0); its STmin only spaces frames in
// time, which this model has no use for.
void UdsServer::send_block(Model& m, unsigned port, uint8_t bs) {
  const size_t per = consecutive();
  for (uint32_t i = 0; tx_at_ < tx_.size() && (bs == 0 || i < bs); ++i) {
    const size_t n = std::min(per, tx_.size() - tx_at_);
    Bytes f{uint8_t(0x20 | (tx_seq_++ & 0x0F))};
    f.insert(f.end(), tx_.begin() + long(tx_at_), tx_.begin() + long(tx_at_ + n));
    tx_at_ += n;
    send_frame(m, port, f);
  }
  if (tx_at_ >= tx_.size()) tx_active_ = false;
}

void UdsServer::send_fc(Model& m, unsigned port, uint8_t status) {
  send_frame(m, port, {uint8_t(0x30 | status), block_size, st_min});
}

void UdsServer::send_frame(Model& m, unsigned port, const Bytes& bytes) {
  if (fd_) {
    FdFrame f;
    f.id = tx_id;
    f.ext = ext_id;
    f.len = length();
    f.fdf = fd_fdf_ || f.len > 8;
    f.brs = f.fdf && fd_brs_;
    f.data.fill(pad);
    size_t at = 0;
    if (ext_addressing) f.data[at++] = tx_address;
    std::copy_n(bytes.begin(), std::min(bytes.size(), f.len - at), f.data.begin() + long(at));
    canfd_deliver(m, port, f);
    return;
  }
  CanFrame f;
  f.id = tx_id;
  f.ext = ext_id;
  f.len = 8;
  f.data.fill(pad);
  size_t at = 0;
  if (ext_addressing) f.data[at++] = tx_address;
  std::copy_n(bytes.begin(), std::min(bytes.size(), f.data.size() - at), f.data.begin() + long(at));
  can_deliver(m, port, f);
}

// A setting between CAN FD lengths goes out as the next one up, so that the frame and the
// planning agree.
uint8_t UdsServer::length() const {
  if (!fd_) return 8;
  const uint8_t want = frame_length ? frame_length : fd_heard_;
  for (uint8_t l : {8, 12, 16, 20, 24, 32, 48})
    if (want <= l) return l;
  return 64;
}

UdsServer& uds_server(Model& m) { return m.state<UdsServer>(); }

void install_uds_server(Model& m) {
  can_bus(m).nodes.push_back(CanNode{[](Model& model) { return uds_server(model).enabled; },
                                     [](Model& model, unsigned port, const CanFrame& f) {
                                       uds_server(model).on_frame(model, port, f);
                                     }});
  canfd_bus(m).nodes.push_back(FdNode{[](Model& model) { return uds_server(model).enabled; },
                                      [](Model& model, unsigned port, const FdFrame& f) {
                                        uds_server(model).on_fd_frame(model, port, f);
                                      }});
}

}  // namespace veltrix::sim
