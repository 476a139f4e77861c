#include "sim/testbed.hpp"

#include <umockdev.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace veltrix::sim {
namespace {

std::string hex(const std::vector<uint8_t>& b) {
  std::string s;
  char t[3];
  for (uint8_t v : b) {
    std::snprintf(t, sizeof t, "%02x", v);
    s += t;
  }
  return s;
}

// Device descriptor plus the configuration: one vendor interface with bulk OUT 0x01,
// bulk IN 0x81 and OUT 0x02.
std::vector<uint8_t> adapter_descriptors(uint16_t pid, Speed speed) {
  const uint8_t mps_lo = speed == Speed::High ? 0x00 : 0x40;
  const uint8_t mps_hi = speed == Speed::High ? 0x02 : 0x00;
  return {0x12, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x40, 0x83, 0x04, uint8_t(pid),
          uint8_t(pid >> 8), 0x00, 0x01, 0x01, 0x02, 0x03, 0x01,
          // configuration
          0x09, 0x02, 0x27, 0x00, 0x01, 0x01, 0x00, 0x80, 0x32,
          // interface 0, three endpoints, vendor class
          0x09, 0x04, 0x00, 0x00, 0x03, 0xFF, 0x00, 0x00, 0x00,
          0x07, 0x05, 0x01, 0x02, mps_lo, mps_hi, 0x00,
          0x07, 0x05, 0x81, 0x02, mps_lo, mps_hi, 0x00,
          0x07, 0x05, 0x02, 0x02, mps_lo, mps_hi, 0x00};
}

std::vector<uint8_t> hub_descriptors() {
  return {0x12, 0x01, 0x00, 0x02, 0x09, 0x00, 0x01, 0x40, 0x6b, 0x1d, 0x02, 0x00, 0x00,
          0x01, 0x00, 0x00, 0x00, 0x01, 0x09, 0x02, 0x19, 0x00, 0x01, 0x01, 0x00, 0xe0,
          0x00, 0x09, 0x04, 0x00, 0x00, 0x01, 0x09, 0x00, 0x00, 0x00, 0x07, 0x05, 0x81,
          0x03, 0x02, 0x00, 0x0c};
}

std::string sys_name(int bus, const std::vector<int>& ports, size_t depth) {
  std::string s = std::to_string(bus) + "-";
  for (size_t i = 0; i < depth; ++i) s += (i ? "." : "") + std::to_string(ports[i]);
  return s;
}

std::string sys_path(int bus, const std::vector<int>& ports, size_t depth) {
  std::string s = "/devices/usb" + std::to_string(bus);
  for (size_t d = 1; d <= depth; ++d) s += "/" + sys_name(bus, ports, d);
  return s;
}

std::string dev_node(int bus, int devnum) {
  char t[32];
  std::snprintf(t, sizeof t, "bus/usb/%03d/%03d", bus, devnum);
  return t;
}

void add_usb_device(UMockdevTestbed* tb, const std::string& path, int bus, int devnum,
                    int speed, const std::vector<uint8_t>& desc) {
  std::ostringstream s;
  char busnum[8], dn[8];
  std::snprintf(busnum, sizeof busnum, "%03d", bus);
  std::snprintf(dn, sizeof dn, "%03d", devnum);
  s << "P: " << path << "\nN: " << dev_node(bus, devnum) << "\nE: SUBSYSTEM=usb\n"
    << "E: DRIVER=usb\nE: BUSNUM=" << busnum << "\nE: DEVNUM=" << dn
    << "\nE: DEVNAME=/dev/" << dev_node(bus, devnum) << "\nE: DEVTYPE=usb_device\n"
    << "A: bConfigurationValue=1\\n\nA: busnum=" << bus << "\\n\nA: devnum=" << devnum
    << "\\n\nA: speed=" << speed << "\\n\nH: descriptors=" << hex(desc) << "\n";
  GError* err = nullptr;
  if (!umockdev_testbed_add_from_string(tb, s.str().c_str(), &err)) {
    std::string msg = err ? err->message : "unknown error";
    if (err) g_error_free(err);
    throw std::runtime_error("virtual adapter: cannot add " + path + ": " + msg);
  }
}

}  // namespace

bool PortPath::parse(const std::string& text, PortPath* out) {
  PortPath p;
  std::string rest = text;
  if (auto dash = rest.find('-'); dash != std::string::npos) {
    p.bus = std::atoi(rest.substr(0, dash).c_str());
    rest = rest.substr(dash + 1);
  }
  std::stringstream ss(rest);
  std::string part;
  while (std::getline(ss, part, '.')) {
    int v = std::atoi(part.c_str());
    if (v < 1 || v > 255) return false;
    p.ports.push_back(v);
  }
  if (p.bus < 1 || p.bus > 127 || p.ports.empty() || p.ports.size() > 7) return false;
  *out = p;
  return true;
}

std::string PortPath::text() const {
  std::string s;
  for (size_t i = 0; i < ports.size(); ++i) s += (i ? "." : "") + std::to_string(ports[i]);
  return s;
}

Testbed& Testbed::instance() {
  static Testbed* t = new Testbed;
  return *t;
}

Testbed::Testbed() : tb_(umockdev_testbed_new()) {}

int Testbed::next_devnum(int bus) {
  int& n = devnums_[bus];
  if (n < 2) n = 2;
  return n++;
}

void Testbed::ensure_hubs(const PortPath& where) {
  for (size_t depth = 1; depth < where.ports.size(); ++depth) {
    std::string path = sys_path(where.bus, where.ports, depth);
    if (hubs_[path]) continue;
    add_usb_device(tb_, path, where.bus, next_devnum(where.bus), 480, hub_descriptors());
    hubs_[path] = true;
  }
}

void Testbed::plug(Plugged& p) {
  ensure_hubs(p.where);
  auto front = std::make_unique<UsbDevice>(p.model);
  const uint32_t serial = p.model->serial();
  front->on_unplug_request = [this, serial] {
    // Called on umockdev's thread: only the USB side goes away now; the device leaves
    // sysfs at the next replug.
    if (UsbDevice* d = device(serial)) d->disconnect();
  };
  p.devnode = "/dev/" + dev_node(p.where.bus, p.devnum);
  GError* err = nullptr;
  umockdev_testbed_attach_ioctl(tb_, p.devnode.c_str(), front->ioctl_base(), &err);
  if (err) {
    std::string msg = err->message;
    g_error_free(err);
    throw std::runtime_error("virtual adapter: cannot attach " + p.devnode + ": " + msg);
  }
  p.syspath = sys_path(p.where.bus, p.where.ports, p.where.ports.size());
  int speed = p.model->identity().speed == Speed::High ? 480 : 12;
  add_usb_device(tb_, p.syspath, p.where.bus, p.devnum, speed,
                 adapter_descriptors(p.model->identity().product_id, p.model->identity().speed));
  {
    std::scoped_lock g(sim_mutex());
    p.usb = front.get();
    p.model->attach(p.usb);
    fronts_.push_back(std::move(front));
  }
}

void Testbed::remove_from_sysfs(Plugged& p) {
  if (p.syspath.empty()) return;
  std::string sys = "/sys" + p.syspath;
  umockdev_testbed_uevent(tb_, sys.c_str(), "remove");
  umockdev_testbed_remove_device(tb_, sys.c_str());
  umockdev_testbed_detach_ioctl(tb_, p.devnode.c_str(), nullptr);
  p.syspath.clear();
}

void Testbed::check_free(uint32_t serial, const PortPath& where) const {
  char name[16];
  std::snprintf(name, sizeof name, "%08X", serial);
  if (adapters_.count(serial))
    throw std::invalid_argument(std::string("adapter ") + name + " is placed twice");
  const std::string path = sys_path(where.bus, where.ports, where.ports.size());
  if (hubs_.count(path))
    throw std::invalid_argument("port " + where.text() + " is a hub on the way to another " +
                                "adapter, it cannot also hold adapter " + name);
  for (const auto& [other, p] : adapters_) {
    if (p.syspath.empty()) continue;
    char other_name[16];
    std::snprintf(other_name, sizeof other_name, "%08X", other);
    if (p.syspath == path)
      throw std::invalid_argument("adapters " + std::string(other_name) + " and " + name +
                                  " are both placed at port " + where.text());
    for (size_t depth = 1; depth < where.ports.size(); ++depth)
      if (p.syspath == sys_path(where.bus, where.ports, depth))
        throw std::invalid_argument("port " + where.text() + " lies behind adapter " + other_name +
                                    ", which is not a hub");
  }
}

std::shared_ptr<Model> Testbed::add_adapter(const Identity& id, const std::string& port_path) {
  Plugged p;
  if (port_path.empty()) {
    p.where.ports = {next_root_port_++};
  } else if (!PortPath::parse(port_path, &p.where)) {
    throw std::invalid_argument("virtual adapter: bad port path '" + port_path + "'");
  }
  check_free(id.serial, p.where);
  p.model = std::make_shared<Model>(id);
  p.devnum = next_devnum(p.where.bus);
  plug(p);
  auto model = p.model;
  adapters_[id.serial] = std::move(p);
  return model;
}

void Testbed::unplug(uint32_t serial) {
  auto it = adapters_.find(serial);
  if (it == adapters_.end()) return;
  {
    std::scoped_lock g(sim_mutex());
    if (it->second.usb) it->second.usb->disconnect();
  }
  remove_from_sysfs(it->second);
}

void Testbed::replug(uint32_t serial, const std::string& port_path, bool same_address) {
  auto it = adapters_.find(serial);
  if (it == adapters_.end()) return;
  Plugged& p = it->second;
  {
    std::scoped_lock g(sim_mutex());
    if (p.usb) p.usb->disconnect();
  }
  remove_from_sysfs(p);
  PortPath where = p.where;
  if (!port_path.empty() && !PortPath::parse(port_path, &where))
    throw std::invalid_argument("virtual adapter: bad port path '" + port_path + "'");
  if (!same_address || where.bus != p.where.bus) p.devnum = next_devnum(where.bus);
  p.where = where;
  plug(p);
}

std::shared_ptr<Model> Testbed::model(uint32_t serial) {
  auto it = adapters_.find(serial);
  return it == adapters_.end() ? nullptr : it->second.model;
}

UsbDevice* Testbed::device(uint32_t serial) {
  std::scoped_lock g(sim_mutex());
  auto it = adapters_.find(serial);
  return it == adapters_.end() ? nullptr : it->second.usb;
}

std::string Testbed::port_of(uint32_t serial) {
  auto it = adapters_.find(serial);
  return it == adapters_.end() ? "" : it->second.where.text();
}

}  // namespace veltrix::sim
