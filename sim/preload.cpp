// Loaded into any program started by veltrix-sim: builds the virtual adapters before main
// runs. VELTRIX_SIM_ADAPTERS lists them as SERIAL[@PORTPATH][:full] separated by commas
// (serial in hex). VELTRIX_SIM_ECU=1 puts the diagnostic ECU (requests on 7E0, answers on
// 7E8) on every adapter's CAN bus. VELTRIX_SIM_UART_LOOPBACK=1 wires every UART channel's
// output to its input. VELTRIX_SIM_UNPLUG=SERIAL:CODE (both hex) pulls that adapter out as
// the first command CODE arrives, so a program can be tried against an adapter lost in the
// middle of its work. VELTRIX_SIM_UNPLUG_AFTER=SERIAL:MS (serial in hex, milliseconds in
// decimal) pulls it out that long after the program starts, for work that is a stream of
// data rather than a series of commands.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "device/wire.hpp"
#include "sim/testbed.hpp"
#include "sim/uart.hpp"
#include "sim/uds_server.hpp"

namespace {

bool env_is(const char* name, const char* value) {
  const char* v = std::getenv(name);
  return v != nullptr && std::string(v) == value;
}

// SERIAL:N of the variable (serial in hex, N in base `base`); false when unset or not of
// that form.
bool serial_and_number(const char* variable, int base, uint32_t* serial, unsigned long* n) {
  const char* v = std::getenv(variable);
  if (v == nullptr) return false;
  char* end = nullptr;
  *serial = uint32_t(std::strtoul(v, &end, 16));
  if (end == v || *end != ':') return false;
  const char* number = end + 1;
  *n = std::strtoul(number, &end, base);
  return end != number && *end == '\0';
}

// Started once every adapter is in. The testbed is never destroyed, and the timer touches
// nothing else: a program that ends first simply takes the waiting thread with it.
void start_unplug_timer() {
  uint32_t serial = 0;
  unsigned long ms = 0;
  if (!serial_and_number("VELTRIX_SIM_UNPLUG_AFTER", 10, &serial, &ms)) return;
  if (!veltrix::sim::Testbed::instance().model(serial)) return;
  std::thread([serial, ms] {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    try {
      veltrix::sim::Testbed::instance().unplug(serial);
    } catch (...) {
    }
  }).detach();
}

void apply_options(veltrix::sim::Model& model) {
  std::scoped_lock g(veltrix::sim::sim_mutex());
  if (env_is("VELTRIX_SIM_ECU", "1")) veltrix::sim::uds_server(model).enabled = true;
  if (env_is("VELTRIX_SIM_UART_LOOPBACK", "1"))
    for (auto& ch : veltrix::sim::uart_sim(model).ch) ch.loopback = true;
  uint32_t serial = 0;
  unsigned long code = 0;
  if (serial_and_number("VELTRIX_SIM_UNPLUG", 16, &serial, &code) && code != 0 &&
      serial == model.serial()) {
    veltrix::sim::Fault f;
    f.kind = veltrix::sim::FaultKind::Unplug;
    f.match_code = uint32_t(code);
    model.inject(f);
  }
}

__attribute__((constructor)) void veltrix_sim_start() {
  const char* list = std::getenv("VELTRIX_SIM_ADAPTERS");
  if (list == nullptr || *list == '\0') return;
  std::stringstream ss(list);
  std::string item;
  try {
    while (std::getline(ss, item, ',')) {
      if (item.empty()) continue;
      veltrix::sim::Identity id;
      if (auto colon = item.find(':'); colon != std::string::npos) {
        if (item.substr(colon + 1) == "full") id.speed = veltrix::sim::Speed::Full;
        item = item.substr(0, colon);
      }
      std::string port;
      if (auto at = item.find('@'); at != std::string::npos) {
        port = item.substr(at + 1);
        item = item.substr(0, at);
      }
      char* end = nullptr;
      id.serial = uint32_t(std::strtoul(item.c_str(), &end, 16));
      if (end == item.c_str() || *end != '\0') {
        std::fprintf(stderr, "veltrix-sim: bad serial '%s'\n", item.c_str());
        std::exit(2);
      }
      auto model = veltrix::sim::Testbed::instance().add_adapter(id, port);
      if (model) apply_options(*model);
    }
    start_unplug_timer();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "veltrix-sim: %s\n", e.what());
    std::exit(2);
  }
}

}  // namespace

// Hooks for programs that run under veltrix-sim but cannot link the testbed, such as the
// Python test suite (through ctypes on the process's own symbols). Each answers -1 for an
// adapter the testbed does not know and never lets an exception out.
#define VELTRIX_SIM_HOOK extern "C" __attribute__((visibility("default")))

namespace {

std::shared_ptr<veltrix::sim::Model> hooked_model(uint32_t serial) {
  return veltrix::sim::Testbed::instance().model(serial);
}

}  // namespace

// Pulls the adapter out of its port.
VELTRIX_SIM_HOOK int veltrix_sim_unplug(uint32_t serial) {
  try {
    if (!hooked_model(serial)) return -1;
    veltrix::sim::Testbed::instance().unplug(serial);
    return 0;
  } catch (...) {
    return -1;
  }
}

// Plugs it back in at the port it had, keeping its firmware state.
VELTRIX_SIM_HOOK int veltrix_sim_replug(uint32_t serial) {
  try {
    if (!hooked_model(serial)) return -1;
    veltrix::sim::Testbed::instance().replug(serial);
    return 0;
  } catch (...) {
    return -1;
  }
}

// Forgets the commands recorded so far.
VELTRIX_SIM_HOOK int veltrix_sim_clear_record(uint32_t serial) {
  try {
    auto m = hooked_model(serial);
    if (!m) return -1;
    m->clear_record();
    return 0;
  } catch (...) {
    return -1;
  }
}

// Joins a UART channel's transmit line to its own receive line (on != 0), or parts them,
// so a program can hear what it sends.
VELTRIX_SIM_HOOK int veltrix_sim_uart_loopback(uint32_t serial, uint32_t channel, int on) {
  try {
    auto m = hooked_model(serial);
    if (!m || channel >= uint32_t(veltrix::sim::kUartChannels)) return -1;
    std::scoped_lock g(veltrix::sim::sim_mutex());
    veltrix::sim::uart_sim(*m).ch[channel].loopback = on != 0;
    return 0;
  } catch (...) {
    return -1;
  }
}

// Copies the recorded commands with code `code` (0: all), oldest first, into buf as
// [code u32 LE][length u32 LE][payload] entries. Returns the bytes all of them need; when
// that exceeds cap only whole entries that fit were written, so the caller asks again
// with a larger buffer.
VELTRIX_SIM_HOOK long veltrix_sim_commands(uint32_t serial, uint32_t code, uint8_t* buf,
                                           size_t cap) {
  try {
    auto m = hooked_model(serial);
    if (!m) return -1;
    const auto record = code == 0 ? m->commands() : m->commands_with_code(code);
    size_t need = 0;
    for (const auto& c : record) {
      const size_t entry = 8 + c.payload.size();
      if (buf != nullptr && need + entry <= cap) {
        uint8_t* p = buf + need;
        veltrix::wire::put_le32(p, c.code);
        veltrix::wire::put_le32(p + 4, uint32_t(c.payload.size()));
        std::copy(c.payload.begin(), c.payload.end(), p + 8);
      }
      need += entry;
    }
    return long(need);
  } catch (...) {
    return -1;
  }
}
