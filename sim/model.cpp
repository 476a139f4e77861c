#include "sim/model.hpp"

#include "sim/usb_device.hpp"

namespace veltrix::sim {

std::recursive_mutex& sim_mutex() {
  static std::recursive_mutex* m = new std::recursive_mutex;
  return *m;
}

Model::Model(Identity id) : id_(std::move(id)) { install_families(*this); }

namespace {

template <typename T>
void keep_recent(std::deque<T>& q, size_t& dropped) {
  while (q.size() > Model::kRecordMaxEntries) {
    q.pop_front();
    ++dropped;
  }
}

bool transfer_level(FaultKind k) {
  return k == FaultKind::Stall || k == FaultKind::ClaimBusy || k == FaultKind::HoldOut;
}

}  // namespace

void Model::record_command(const Command& c) {
  record_.push_back(c);
  record_bytes_ += c.payload.size();
  while (record_.size() > kRecordMaxEntries ||
         (record_bytes_ > kRecordMaxPayloadBytes && record_.size() > 1)) {
    record_bytes_ -= record_.front().payload.size();
    record_.pop_front();
    ++dropped_;
  }
}

void Model::record_out(const OutTransfer& t) {
  out_.push_back(t);
  keep_recent(out_, dropped_);
}

void Model::record_control(const ControlRequest& c) {
  control_.push_back(c);
  keep_recent(control_, dropped_);
}

size_t Model::dropped_records() const {
  std::scoped_lock g(sim_mutex());
  return dropped_;
}

std::optional<Reply> Model::dispatch(const Command& c) {
  record_command(c);
  auto it = handlers_.find(c.code);
  if (it == handlers_.end()) {
    ++unknown_;
    return std::nullopt;
  }
  return it->second(*this, c);
}

bool Model::control(const ControlRequest& rq) {
  auto it = control_handlers_.find(uint16_t(rq.request_type << 8 | rq.request));
  return it != control_handlers_.end() && it->second(*this, rq);
}

void Model::attach(UsbDevice* front) {
  std::scoped_lock g(sim_mutex());
  front_ = front;
  ++plugs_;
}

bool Model::stream_in(const uint8_t* bytes, size_t n) {
  std::scoped_lock g(sim_mutex());
  if (front_ == nullptr || !front_->connected()) return false;
  front_->push_in(bytes, n);
  return true;
}

size_t Model::stream_backlog() const {
  std::scoped_lock g(sim_mutex());
  return front_ ? front_->in_backlog() : 0;
}

void Model::drop_stream() {
  std::scoped_lock g(sim_mutex());
  if (front_) front_->discard_in();
}

std::vector<Command> Model::commands() const {
  std::scoped_lock g(sim_mutex());
  return {record_.begin(), record_.end()};
}

std::vector<Command> Model::commands_with_code(uint32_t code) const {
  std::scoped_lock g(sim_mutex());
  std::vector<Command> out;
  for (const Command& c : record_)
    if (c.code == code) out.push_back(c);
  return out;
}

std::vector<OutTransfer> Model::out_transfers() const {
  std::scoped_lock g(sim_mutex());
  return {out_.begin(), out_.end()};
}

std::vector<ControlRequest> Model::control_requests() const {
  std::scoped_lock g(sim_mutex());
  return {control_.begin(), control_.end()};
}

void Model::clear_record() {
  std::scoped_lock g(sim_mutex());
  record_.clear();
  record_bytes_ = 0;
  out_.clear();
  control_.clear();
}

void Model::inject(Fault f) {
  std::scoped_lock g(sim_mutex());
  faults_.push_back(std::move(f));
}

int Model::resets() const {
  std::scoped_lock g(sim_mutex());
  return resets_;
}

size_t Model::unknown_commands() const {
  std::scoped_lock g(sim_mutex());
  return unknown_;
}

std::optional<Fault> Model::take_fault(uint32_t code) {
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (it->match_code != 0 && it->match_code != code) continue;
    if (transfer_level(it->kind)) continue;  // hits transfers or claims, not commands
    Fault f = *it;
    if (--it->times <= 0) faults_.erase(it);
    return f;
  }
  return std::nullopt;
}

bool Model::take_transfer_fault(FaultKind kind) {
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (it->kind != kind) continue;
    if (--it->times <= 0) faults_.erase(it);
    return true;
  }
  return false;
}

}  // namespace veltrix::sim
