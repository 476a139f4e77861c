// The virtual adapter's firmware model: a table from command code to handler, the
// adapter's identity, per-family state, and the test hooks (command record, faults).
//
// Every model in the process shares one lock (sim_mutex()): the USB front end takes it for
// each request it serves, tests take it through the accessors, and families that join
// adapters on one virtual bus can touch another adapter's state without a lock order.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <vector>

namespace veltrix::sim {

std::recursive_mutex& sim_mutex();

struct Command {
  uint8_t endpoint = 0;
  uint32_t code = 0;
  std::vector<uint8_t> payload;
};

struct Reply {
  uint32_t code = 0;
  std::vector<uint8_t> payload;
};

// What a bulk OUT transfer looked like on the wire (zero-length packets included).
struct OutTransfer {
  uint8_t endpoint = 0;
  size_t length = 0;
};

struct ControlRequest {
  uint8_t request_type = 0;
  uint8_t request = 0;
  uint16_t value = 0;
  uint16_t index = 0;
  uint16_t length = 0;
};

enum class FaultKind {
  NoReply,       // the command is taken but never answered
  WrongCode,     // the reply carries code `arg` instead of the right one
  ShortHeader,   // only the first 4 bytes of the reply header are sent
  Stall,         // the next IN transfer stalls
  Unplug,        // the adapter is unplugged as the command arrives
  ExtraPayload,  // `arg` bytes (0xEE) are appended to the reply payload
  RawReply,      // `raw` is sent instead of the reply
  LongLength,    // the reply header announces `arg` more bytes than follow
  // Transfer-level faults (match_code is ignored; `times` counts what they hit):
  ClaimBusy,  // claiming the interface fails with EBUSY, as when another program holds it
  HoldOut,    // a bulk OUT transfer is never accepted: it waits until the host gives up
};

struct Fault {
  FaultKind kind = FaultKind::NoReply;
  uint32_t match_code = 0;  // 0: the next command whatever its code
  uint32_t arg = 0;
  std::vector<uint8_t> raw;
  int times = 1;  // how many matching commands it applies to
};

class Model;
class UsbDevice;
// A handler answers one command. No value means the command has no reply.
using Handler = std::function<std::optional<Reply>(Model&, const Command&)>;

enum class Speed { Full, High };

struct Identity {
  uint32_t serial = 0;
  uint16_t product_id = 0x7918;
  std::string manufacturer;  // empty: the maker's first string
  std::string product = "VELTRIX USB adapter";
  Speed speed = Speed::High;
};

class Model {
 public:
  explicit Model(Identity id);

  const Identity& identity() const { return id_; }
  Identity& identity() { return id_; }
  uint32_t serial() const { return id_.serial; }
  uint8_t model_code() const { return uint8_t(id_.serial >> 24); }

  // Tests may add handlers while the adapter is plugged in.
  void on(uint32_t code, Handler h) {
    std::scoped_lock g(sim_mutex());
    handlers_[code] = std::move(h);
  }
  // Runs the handler for one command and records it; unknown codes get no reply.
  std::optional<Reply> dispatch(const Command& c);

  // A vendor OUT control request (no data stage) that a family answers; true if it was
  // understood. Families register these at install time.
  using ControlHandler = std::function<bool(Model&, const ControlRequest&)>;
  void on_control(uint8_t request_type, uint8_t request, ControlHandler h) {
    std::scoped_lock g(sim_mutex());
    control_handlers_[uint16_t(request_type << 8 | request)] = std::move(h);
  }
  // Runs the family's handler for a control request; false if none knows it.
  bool control(const ControlRequest& rq);

  // The bulk IN pipe of the current plug, for families that push data outside of a command
  // reply (streams). All three take sim_mutex(); while unplugged nothing is sent.
  bool stream_in(const uint8_t* bytes, size_t n);  // false while unplugged
  size_t stream_backlog() const;                   // bytes queued and not yet read
  void drop_stream();                              // discards what the host has not read
  void attach(UsbDevice* front);                   // by the testbed at each plug
  // Counts plugs: a stream started on one plug must not push into the next.
  uint64_t plug_generation() const { return plugs_; }

  // Per-family state, created on first use.
  template <typename T>
  T& state() {
    auto& slot = ext_[std::type_index(typeid(T))];
    if (!slot) slot = std::make_shared<T>();
    return *static_cast<T*>(slot.get());
  }

  // Test hooks (take sim_mutex() when called from a test thread).
  std::vector<Command> commands() const;
  std::vector<Command> commands_with_code(uint32_t code) const;
  std::vector<OutTransfer> out_transfers() const;
  std::vector<ControlRequest> control_requests() const;
  void clear_record();
  void inject(Fault f);
  int resets() const;
  size_t unknown_commands() const;

  // The record keeps the most recent commands only, so soaks and benchmarks through the
  // virtual adapter run in bounded memory; tests look at far fewer than this.
  static constexpr size_t kRecordMaxEntries = 8192;
  static constexpr size_t kRecordMaxPayloadBytes = 32u << 20;
  // Entries dropped from the front of the record so far.
  size_t dropped_records() const;

  // Used by the USB front end (under sim_mutex()).
  void record_out(const OutTransfer& t);
  void record_control(const ControlRequest& c);
  void count_reset() { ++resets_; }
  std::optional<Fault> take_fault(uint32_t code);
  bool take_stall() { return take_transfer_fault(FaultKind::Stall); }
  // Consumes one hit of the first pending fault of a transfer-level kind.
  bool take_transfer_fault(FaultKind kind);

 private:
  Identity id_;
  std::map<uint32_t, Handler> handlers_;
  std::map<uint16_t, ControlHandler> control_handlers_;
  UsbDevice* front_ = nullptr;
  uint64_t plugs_ = 0;
  std::unordered_map<std::type_index, std::shared_ptr<void>> ext_;
  void record_command(const Command& c);

  std::deque<Command> record_;
  size_t record_bytes_ = 0;  // payload bytes held in record_
  std::deque<OutTransfer> out_;
  std::deque<ControlRequest> control_;
  size_t dropped_ = 0;
  std::deque<Fault> faults_;
  int resets_ = 0;
  size_t unknown_ = 0;
};

// Installs every family's command handlers on a new model.
void install_families(Model& m);

}  // namespace veltrix::sim
