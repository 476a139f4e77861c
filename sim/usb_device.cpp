#include "sim/usb_device.hpp"

#include <errno.h>
#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <cstring>

#include "device/identity.hpp"
#include "device/wire.hpp"

namespace veltrix::sim {
namespace {

// A frame announcing more than this is garbage from a broken host; the stream is dropped.
constexpr uint32_t kMaxCommandBytes = 64u << 20;

gboolean on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
  return static_cast<UsbDevice*>(self)->handle(client) ? TRUE : FALSE;
}

usbdevfs_urb* urb_of(UMockdevIoctlData* d) { return reinterpret_cast<usbdevfs_urb*>(d->data); }

UMockdevIoctlData* urb_buffer(UMockdevIoctlData* ud) {
  usbdevfs_urb* urb = urb_of(ud);
  return umockdev_ioctl_data_resolve(ud, G_STRUCT_OFFSET(usbdevfs_urb, buffer),
                                     size_t(urb->buffer_length), nullptr);
}

// A string descriptor: bLength, type 3, then UTF-16LE text.
size_t string_descriptor(const std::string& s, uint8_t* out, size_t room) {
  size_t chars = std::min<size_t>(s.size(), 126);
  std::vector<uint8_t> d(2 + 2 * chars);
  d[0] = uint8_t(d.size());
  d[1] = 3;
  for (size_t i = 0; i < chars; ++i) d[2 + 2 * i] = uint8_t(s[i]);
  size_t n = std::min(room, d.size());
  std::memcpy(out, d.data(), n);
  return n;
}

}  // namespace

UsbDevice::UsbDevice(std::shared_ptr<Model> model) : model_(std::move(model)) {
  base_ = umockdev_ioctl_base_new();
  signal_id_ = g_signal_connect(base_, "handle-ioctl", G_CALLBACK(on_ioctl), this);
}

UsbDevice::~UsbDevice() {
  g_signal_handler_disconnect(base_, signal_id_);
  for (auto* d : pending_in_) umockdev_ioctl_data_unref(d);
  for (auto* d : held_out_) umockdev_ioctl_data_unref(d);
  for (auto* d : completed_) umockdev_ioctl_data_unref(d);
  g_object_unref(base_);
}

void UsbDevice::disconnect() {
  connected_ = false;
  for (auto* pending : {&pending_in_, &held_out_}) {
    for (auto* ud : *pending) {
      urb_of(ud)->status = -ENODEV;
      urb_of(ud)->actual_length = 0;
      completed_.push_back(ud);
    }
    pending->clear();
  }
  in_stream_.clear();
}

void UsbDevice::push_in(const std::vector<uint8_t>& bytes) { push_in(bytes.data(), bytes.size()); }

void UsbDevice::push_in(const uint8_t* bytes, size_t n) {
  if (!connected_) return;
  in_stream_.insert(in_stream_.end(), bytes, bytes + n);
  complete_in();
}

void UsbDevice::reset_pipes() {
  // A bus reset empties the adapter's endpoint FIFOs.
  for (auto& s : out_stream_) s.clear();
  in_stream_.clear();
}

bool UsbDevice::handle(UMockdevIoctlClient* client) {
  std::scoped_lock g(sim_mutex());
  const unsigned long req = umockdev_ioctl_client_get_request(client);
  UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);

  if (!connected_ && req != USBDEVFS_REAPURB && req != USBDEVFS_REAPURBNDELAY &&
      req != USBDEVFS_DISCARDURB) {
    umockdev_ioctl_client_complete(client, -1, ENODEV);
    return true;
  }
  switch (req) {
    case USBDEVFS_GET_CAPABILITIES: {
      UMockdevIoctlData* d = umockdev_ioctl_data_resolve(arg, 0, 4, nullptr);
      *reinterpret_cast<uint32_t*>(d->data) =
          USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
          USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
      g_object_unref(d);
      umockdev_ioctl_client_complete(client, 0, 0);
      return true;
    }
    case USBDEVFS_RESET:
      model_->count_reset();
      reset_pipes();
      umockdev_ioctl_client_complete(client, 0, 0);
      return true;
    case USBDEVFS_CLAIMINTERFACE:
      if (model_->take_transfer_fault(FaultKind::ClaimBusy)) {
        umockdev_ioctl_client_complete(client, -1, EBUSY);
        return true;
      }
      umockdev_ioctl_client_complete(client, 0, 0);
      return true;
    case USBDEVFS_RELEASEINTERFACE:
    case USBDEVFS_CLEAR_HALT:
    case USBDEVFS_RESETEP:
    case USBDEVFS_SETINTERFACE:
    case USBDEVFS_SETCONFIGURATION:
      umockdev_ioctl_client_complete(client, 0, 0);
      return true;
    case USBDEVFS_SUBMITURB:
      submit(client, arg);
      return true;
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY: {
      if (completed_.empty()) {
        umockdev_ioctl_client_complete(client, -1, connected_ ? EAGAIN : ENODEV);
        return true;
      }
      UMockdevIoctlData* ud = completed_.front();
      completed_.pop_front();
      UMockdevIoctlData* p = umockdev_ioctl_data_resolve(arg, 0, sizeof(gpointer), nullptr);
      // The argument keeps its own reference to the URB it now points at; the one this
      // front end took at submission ends here, or every transfer would stay allocated.
      umockdev_ioctl_data_set_ptr(p, 0, ud);
      umockdev_ioctl_data_unref(ud);
      g_object_unref(p);
      umockdev_ioctl_client_complete(client, 0, 0);
      return true;
    }
    case USBDEVFS_DISCARDURB: {
      // A libusb time-out: the pending transfer is handed back as cancelled.
      gulong addr = gulong(*reinterpret_cast<void**>(arg->data));
      const bool found = discard(pending_in_, addr) || discard(held_out_, addr);
      umockdev_ioctl_client_complete(client, found ? 0 : -1, found ? 0 : EINVAL);
      return true;
    }
    default:
      return false;
  }
}

void UsbDevice::submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
  UMockdevIoctlData* ud = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
  usbdevfs_urb* urb = urb_of(ud);
  // A zero-length packet has no buffer to resolve.
  UMockdevIoctlData* buf = urb->buffer_length > 0 ? urb_buffer(ud) : nullptr;
  if (urb->type == USBDEVFS_URB_TYPE_CONTROL && buf == nullptr) {
    urb->actual_length = 0;
    urb->status = -EPIPE;
    completed_.push_back(umockdev_ioctl_data_ref(ud));
  } else if (urb->type == USBDEVFS_URB_TYPE_CONTROL) {
    control(ud, buf);
    completed_.push_back(umockdev_ioctl_data_ref(ud));
  } else if (!(urb->endpoint & 0x80)) {
    uint8_t ep = urb->endpoint & 0x0F;
    model_->record_out({urb->endpoint, size_t(urb->buffer_length)});
    if (model_->take_transfer_fault(FaultKind::HoldOut)) {
      // Its bytes never reach the firmware; only the host's time-out ends it.
      held_out_.push_back(umockdev_ioctl_data_ref(ud));
      if (buf) g_object_unref(buf);
      g_object_unref(ud);
      umockdev_ioctl_client_complete(client, 0, 0);
      return;
    }
    urb->actual_length = urb->buffer_length;
    urb->status = 0;
    completed_.push_back(umockdev_ioctl_data_ref(ud));
    if (ep >= 1 && ep <= 2 && buf) bulk_out(ep, buf->data, size_t(urb->buffer_length));
  } else if (model_->take_stall()) {
    urb->actual_length = 0;
    urb->status = -EPIPE;
    completed_.push_back(umockdev_ioctl_data_ref(ud));
  } else {
    pending_in_.push_back(umockdev_ioctl_data_ref(ud));
    complete_in();
  }
  if (buf) g_object_unref(buf);
  g_object_unref(ud);
  umockdev_ioctl_client_complete(client, 0, 0);
}

bool UsbDevice::discard(std::deque<UMockdevIoctlData*>& pending, unsigned long addr) {
  for (auto it = pending.begin(); it != pending.end(); ++it) {
    if ((*it)->client_addr != addr) continue;
    urb_of(*it)->status = -ENOENT;
    urb_of(*it)->actual_length = 0;
    completed_.push_back(*it);
    pending.erase(it);
    return true;
  }
  return false;
}

void UsbDevice::control(UMockdevIoctlData* ud, UMockdevIoctlData* buf) {
  usbdevfs_urb* urb = urb_of(ud);
  uint8_t* b = buf->data;
  ControlRequest rq{b[0], b[1], wire::get_le16(b + 2), wire::get_le16(b + 4),
                    wire::get_le16(b + 6)};
  model_->record_control(rq);
  size_t room = std::min<size_t>(rq.length, size_t(urb->buffer_length) - 8);
  size_t n = 0;
  int status = 0;
  const Identity& id = model_->identity();
  if (rq.request_type == 0x80 && rq.request == 6 && (rq.value >> 8) == 3) {
    const uint8_t index = uint8_t(rq.value);
    if (index == 0) {
      const uint8_t langs[4] = {4, 3, 0x09, 0x04};
      n = std::min<size_t>(room, 4);
      std::memcpy(b + 8, langs, n);
    } else if (index == 1) {
      n = string_descriptor(
          id.manufacturer.empty() ? identity::kManufacturerStrings[0] : id.manufacturer, b + 8,
          room);
    } else if (index == 2) {
      n = string_descriptor(id.product, b + 8, room);
    } else {
      char text[16];
      std::snprintf(text, sizeof text, "%08X", id.serial);
      n = string_descriptor(text, b + 8, room);
    }
  } else if (rq.request_type == identity::kReqTypeVendorIn &&
             rq.request == identity::kReqReadSerial) {
    n = std::min<size_t>(room, 4);
    uint8_t s[4];
    wire::put_le32(s, id.serial);
    std::memcpy(b + 8, s, n);
  } else if (rq.request_type == identity::kReqTypeVendorOut &&
             rq.request == identity::kReqReset) {
    model_->count_reset();
  } else if (rq.request_type == identity::kReqTypeVendorOut && model_->control(rq)) {
    // A family's vendor request (the stream stop); it has no data stage.
  } else {
    status = -EPIPE;
  }
  urb->actual_length = int(n);
  urb->status = status;
  umockdev_ioctl_data_update(buf, 0, b, size_t(urb->buffer_length));
}

void UsbDevice::bulk_out(uint8_t ep, const uint8_t* data, size_t n) {
  std::vector<uint8_t>& s = out_stream_[ep];
  s.insert(s.end(), data, data + n);
  while (s.size() >= 8) {
    uint32_t len = wire::get_be32(s.data() + 4);
    if (len > kMaxCommandBytes) {
      s.clear();
      return;
    }
    if (s.size() < 8 + size_t(len)) return;
    Command c{ep, wire::get_be32(s.data()),
              std::vector<uint8_t>(s.begin() + 8, s.begin() + 8 + len)};
    s.erase(s.begin(), s.begin() + 8 + len);
    std::optional<Fault> fault = model_->take_fault(c.code);
    if (fault && fault->kind == FaultKind::Unplug) {
      model_->dispatch(c);
      if (on_unplug_request) on_unplug_request();
      return;
    }
    std::optional<Reply> r = model_->dispatch(c);
    if (fault) {
      switch (fault->kind) {
        case FaultKind::NoReply: r.reset(); break;
        case FaultKind::WrongCode:
          if (!r) r = Reply{c.code, {}};
          r->code = fault->arg;
          break;
        case FaultKind::ExtraPayload:
          if (!r) r = Reply{c.code, {}};
          r->payload.insert(r->payload.end(), fault->arg, 0xEE);
          break;
        case FaultKind::RawReply:
          r.reset();
          in_stream_.insert(in_stream_.end(), fault->raw.begin(), fault->raw.end());
          break;
        case FaultKind::ShortHeader: {
          r.reset();
          uint8_t h[4];
          wire::put_be32(h, c.code);
          in_stream_.insert(in_stream_.end(), h, h + 4);
          break;
        }
        case FaultKind::LongLength:
          if (r) {
            uint8_t h[8];
            wire::put_be32(h, r->code);
            wire::put_be32(h + 4, uint32_t(r->payload.size()) + fault->arg);
            in_stream_.insert(in_stream_.end(), h, h + 8);
            in_stream_.insert(in_stream_.end(), r->payload.begin(), r->payload.end());
            r.reset();
          }
          break;
        default: break;
      }
    }
    if (r) {
      uint8_t h[8];
      wire::put_be32(h, r->code);
      wire::put_be32(h + 4, uint32_t(r->payload.size()));
      in_stream_.insert(in_stream_.end(), h, h + 8);
      in_stream_.insert(in_stream_.end(), r->payload.begin(), r->payload.end());
    }
    complete_in();
    if (!connected_) return;
  }
}

void UsbDevice::complete_in() {
  while (!pending_in_.empty() && !in_stream_.empty()) {
    UMockdevIoctlData* ud = pending_in_.front();
    usbdevfs_urb* urb = urb_of(ud);
    if (urb->buffer_length <= 0) {
      urb->actual_length = 0;
      urb->status = 0;
      pending_in_.pop_front();
      completed_.push_back(ud);
      continue;
    }
    UMockdevIoctlData* buf = urb_buffer(ud);
    size_t n = std::min(in_stream_.size(), size_t(urb->buffer_length));
    std::copy(in_stream_.begin(), in_stream_.begin() + long(n), buf->data);
    in_stream_.erase(in_stream_.begin(), in_stream_.begin() + long(n));
    urb->actual_length = int(n);
    urb->status = 0;
    g_object_unref(buf);
    pending_in_.pop_front();
    completed_.push_back(ud);
  }
}

}  // namespace veltrix::sim
