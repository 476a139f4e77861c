#include "fuzz/reply/fake_usb.hpp"

#include <libusb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "device/identity.hpp"
#include "device/wire.hpp"

struct libusb_context {
  int unused;
};
struct libusb_device {
  int index;
};
struct libusb_device_handle {
  libusb_device* dev;
};

namespace veltrix::fuzz {
namespace {

libusb_context g_ctx;
libusb_device g_devices[2] = {{0}, {1}};
constexpr uint32_t kSerials[2] = {kClassicSerial, kFdSerial};

struct InStream {
  std::vector<uint8_t> bytes;
  size_t pos = 0;
};
InStream g_in;
Responder g_responder;
size_t g_commands = 0;

[[noreturn]] void broken(const char* what) {
  std::fprintf(stderr, "fake adapter: %s\n", what);
  std::abort();
}

// Every command the library writes must be one whole frame: its header's length field
// matches the bytes that follow.
void take_command(uint32_t serial, uint8_t ep, const uint8_t* data, int len) {
  if (len == 0) return;  // the zero-length packet that ends a transfer of whole packets
  if (len < 8 || data == nullptr) broken("command shorter than its header");
  uint32_t declared = wire::get_be32(data + 4);
  if (size_t(declared) + 8 != size_t(len)) broken("command length field does not match");
  ++g_commands;
  if (g_responder) g_responder(serial, ep, wire::get_be32(data), {data + 8, declared});
}

int serve_in(uint8_t* data, int len, int* done) {
  size_t left = g_in.bytes.size() - g_in.pos;
  size_t n = std::min(left, size_t(len));
  if (n) std::memcpy(data, g_in.bytes.data() + g_in.pos, n);
  g_in.pos += n;
  *done = int(n);
  return (n == 0 && len > 0) ? LIBUSB_ERROR_TIMEOUT : 0;
}

}  // namespace

void set_responder(Responder r) { g_responder = std::move(r); }

void reset_in() {
  g_in.bytes.clear();
  g_in.pos = 0;
  g_commands = 0;
}

void queue_in(std::span<const uint8_t> bytes) {
  g_in.bytes.insert(g_in.bytes.end(), bytes.begin(), bytes.end());
}

void queue_reply(uint32_t cmd, std::span<const uint8_t> payload) {
  uint8_t h[8];
  wire::put_be32(h, cmd);
  wire::put_be32(h + 4, uint32_t(payload.size()));
  queue_in(h);
  queue_in(payload);
}

size_t commands_written() { return g_commands; }

}  // namespace veltrix::fuzz

using namespace veltrix::fuzz;

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context** ctx) {
  if (ctx) *ctx = &g_ctx;
  return 0;
}

void LIBUSB_CALL libusb_exit(libusb_context*) {}

int LIBUSB_CALL libusb_set_option(libusb_context*, enum libusb_option, ...) { return 0; }

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context*, libusb_device*** list) {
  auto** l = static_cast<libusb_device**>(std::calloc(3, sizeof(libusb_device*)));
  if (l == nullptr) return LIBUSB_ERROR_NO_MEM;
  l[0] = &g_devices[0];
  l[1] = &g_devices[1];
  *list = l;
  return 2;
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int) { std::free(list); }

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* dev) { return dev; }
void LIBUSB_CALL libusb_unref_device(libusb_device*) {}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* dev,
                                             struct libusb_device_descriptor* d) {
  *d = {};
  d->bLength = sizeof *d;
  d->bDescriptorType = LIBUSB_DT_DEVICE;
  d->idVendor = veltrix::identity::kVendorId;
  d->idProduct = veltrix::identity::kProductIds[dev->index];
  d->iManufacturer = 1;
  d->iProduct = 2;
  d->iSerialNumber = 3;
  d->bNumConfigurations = 1;
  return 0;
}

uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device*) { return 1; }
uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* dev) {
  return uint8_t(2 + dev->index);
}
uint8_t LIBUSB_CALL libusb_get_port_number(libusb_device* dev) { return uint8_t(1 + dev->index); }

int LIBUSB_CALL libusb_get_port_numbers(libusb_device* dev, uint8_t* ports, int len) {
  if (len < 2) return LIBUSB_ERROR_OVERFLOW;
  ports[0] = 1;
  ports[1] = uint8_t(1 + dev->index);
  return 2;
}

int LIBUSB_CALL libusb_get_device_speed(libusb_device* dev) {
  return dev->index == 0 ? LIBUSB_SPEED_HIGH : LIBUSB_SPEED_FULL;
}

int LIBUSB_CALL libusb_open(libusb_device* dev, libusb_device_handle** h) {
  *h = new libusb_device_handle{dev};
  return 0;
}

void LIBUSB_CALL libusb_close(libusb_device_handle* h) { delete h; }

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle*, int) { return 0; }
int LIBUSB_CALL libusb_release_interface(libusb_device_handle*, int) { return 0; }
int LIBUSB_CALL libusb_reset_device(libusb_device_handle*) { return 0; }

int LIBUSB_CALL libusb_get_string_descriptor_ascii(libusb_device_handle* h, uint8_t index,
                                                   unsigned char* data, int length) {
  const char* text =
      index == 1 ? veltrix::identity::kManufacturerStrings[h->dev->index] : "VELTRIX USB adapter";
  int n = std::min<int>(int(std::strlen(text)), length);
  std::memcpy(data, text, size_t(n));
  return n;
}

int LIBUSB_CALL libusb_control_transfer(libusb_device_handle* h, uint8_t type, uint8_t request,
                                        uint16_t, uint16_t, unsigned char* data, uint16_t length,
                                        unsigned int) {
  if (type == veltrix::identity::kReqTypeVendorIn && request == veltrix::identity::kReqReadSerial) {
    if (length < 4) return LIBUSB_ERROR_OVERFLOW;
    veltrix::wire::put_le32(data, kSerials[h->dev->index]);
    return 4;
  }
  return length;
}

int LIBUSB_CALL libusb_bulk_transfer(libusb_device_handle* h, unsigned char ep, unsigned char* data,
                                     int length, int* transferred, unsigned int) {
  if (ep & 0x80) return serve_in(data, length, transferred);
  take_command(kSerials[h->dev->index], ep, data, length);
  *transferred = length;
  return 0;
}

int LIBUSB_CALL libusb_interrupt_transfer(libusb_device_handle* h, unsigned char ep,
                                          unsigned char* data, int length, int* transferred,
                                          unsigned int) {
  take_command(kSerials[h->dev->index], ep, data, length);
  *transferred = length;
  return 0;
}

}  // extern "C"
