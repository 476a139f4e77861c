// The USB front end of one plugged-in virtual adapter: answers the usbdevfs requests that
// libusb issues on the adapter's device node (descriptors, vendor requests, bulk framing,
// asynchronous IN transfers, time-outs, zero-length packets, unplug).
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/model.hpp"

typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace veltrix::sim {

class UsbDevice {
 public:
  explicit UsbDevice(std::shared_ptr<Model> model);
  ~UsbDevice();
  UsbDevice(const UsbDevice&) = delete;
  UsbDevice& operator=(const UsbDevice&) = delete;

  UMockdevIoctlBase* ioctl_base() const { return base_; }
  Model& model() { return *model_; }

  // Marks the device gone: pending transfers fail and new ones are refused (under
  // sim_mutex()).
  void disconnect();
  bool connected() const { return connected_; }

  // Queues bytes on the IN endpoint outside of a command, for streaming families
  // (under sim_mutex()).
  void push_in(const std::vector<uint8_t>& bytes);
  void push_in(const uint8_t* bytes, size_t n);
  size_t in_backlog() const { return in_stream_.size(); }
  void discard_in() { in_stream_.clear(); }

  // Called with sim_mutex() held when a command's fault asks for an unplug; the testbed
  // removes the device from sysfs later, outside the ioctl thread.
  std::function<void()> on_unplug_request;

  bool handle(UMockdevIoctlClient* client);

 private:
  void submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg);
  void control(UMockdevIoctlData* urb_data, UMockdevIoctlData* buf);
  void bulk_out(uint8_t endpoint, const uint8_t* data, size_t n);
  void complete_in();
  void reset_pipes();
  // Hands the pending transfer at the host's address back as cancelled; false if unknown.
  bool discard(std::deque<UMockdevIoctlData*>& pending, unsigned long addr);

  std::shared_ptr<Model> model_;
  UMockdevIoctlBase* base_ = nullptr;
  unsigned long signal_id_ = 0;
  bool connected_ = true;
  std::vector<uint8_t> out_stream_[3];      // partial command frames per OUT endpoint
  std::deque<uint8_t> in_stream_;           // reply bytes not yet read by the host
  std::deque<UMockdevIoctlData*> pending_in_;
  std::deque<UMockdevIoctlData*> held_out_;  // OUT transfers a HoldOut fault keeps
  std::deque<UMockdevIoctlData*> completed_;
};

}  // namespace veltrix::sim
