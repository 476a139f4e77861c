// The virtual USB world of one process: a umockdev testbed with adapters (and the hubs
// their port paths need) plugged in, unplugged and re-plugged at will.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/model.hpp"
#include "sim/usb_device.hpp"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace veltrix::sim {

// "4.2" (bus 1, root port 4, hub port 2) or "2-1.3" (bus 2).
struct PortPath {
  int bus = 1;
  std::vector<int> ports;
  static bool parse(const std::string& text, PortPath* out);
  std::string text() const;  // libusb's form: "4.2"
};

class Testbed {
 public:
  // The process's testbed, created on first use. The process must run under
  // umockdev-wrapper (or veltrix-sim).
  static Testbed& instance();

  // Plugs in a new adapter. An empty port path takes the next free root port on bus 1.
  // Returns its firmware model, which lives as long as the process.
  std::shared_ptr<Model> add_adapter(const Identity& id, const std::string& port_path = "");
  // Pulls the adapter out: transfers in flight fail and it leaves the bus.
  void unplug(uint32_t serial);
  // Plugs it back in, at the same port path or at another; the firmware model (memories
  // and all) is kept. same_address keeps the USB device address of the last plug.
  void replug(uint32_t serial, const std::string& port_path = "", bool same_address = true);

  std::shared_ptr<Model> model(uint32_t serial);
  UsbDevice* device(uint32_t serial);
  std::string port_of(uint32_t serial);

 private:
  Testbed();
  struct Plugged {
    std::shared_ptr<Model> model;
    PortPath where;
    int devnum = 0;
    std::string syspath;  // empty while unplugged
    std::string devnode;
    UsbDevice* usb = nullptr;  // the front end of the current plug
  };
  void plug(Plugged& p);
  void remove_from_sysfs(Plugged& p);
  void ensure_hubs(const PortPath& where);
  // Throws std::invalid_argument, naming the clash, when serial is attached already, the
  // position holds an adapter or a hub, or a hub the position needs would sit where an
  // adapter is: umockdev would otherwise abort the whole process.
  void check_free(uint32_t serial, const PortPath& where) const;
  int next_devnum(int bus);

  UMockdevTestbed* tb_;
  std::map<uint32_t, Plugged> adapters_;
  std::map<std::string, bool> hubs_;
  std::map<int, int> devnums_;
  int next_root_port_ = 1;
  // Front ends of earlier plugs stay alive: libusb may still reap their transfers.
  std::vector<std::unique_ptr<UsbDevice>> fronts_;
};

}  // namespace veltrix::sim
