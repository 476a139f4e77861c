// Finding adapters, opening, closing and re-connecting them.
#include <gtest/gtest.h>

#include <algorithm>

#include "device/registry.hpp"
#include "device/transport.hpp"
#include "tests/support/sim_fixture.hpp"
#include "veltrix/usb_device.h"

namespace veltrix::test {
namespace {

class Registry : public SimTest {};

TEST_F(Registry, ScanRegistersEveryAdapterClosed) {
  plug(0x51000001, "1");
  plug(0x53000002, "2.3");
  unsigned int handles[4] = {0};
  ASSERT_EQ(USB_ScanDevice(handles), 2);
  std::sort(handles, handles + 2);
  EXPECT_EQ(handles[0], 0x51000001u);
  EXPECT_EQ(handles[1], 0x53000002u);
  EXPECT_EQ(usb_list_get_index(handles[0]) + usb_list_get_index(handles[1]), 1);
  EXPECT_STREQ(usb_list_post(0x53000002)->port_path, "2.3");
  EXPECT_EQ(usb_list_post(0x53000002)->opened, 0);
  EXPECT_EQ(usb_list_post(0x53000002)->handle, nullptr);
}

TEST_F(Registry, ScanWithoutAdapterReturnsZero) {
  EXPECT_EQ(USB_ScanDevice(nullptr), 0);
  EXPECT_TRUE(usb_list_is_empty());
}

TEST_F(Registry, OpenedAdapterAnswersCommands) {
  auto m = plug_and_open(0x51000010);
  m->on(0x1234, [](sim::Model&, const sim::Command& c) {
    return std::optional<sim::Reply>(sim::Reply{0x1234, {c.payload.rbegin(), c.payload.rend()}});
  });
  uint8_t out[4] = {0};
  const uint8_t in[3] = {1, 2, 3};
  ExchangeResult r = exchange(0x51000010, {.cmd = 0x1234, .payload = in, .reply = out});
  ASSERT_TRUE(r.ok());
  EXPECT_EQ(r.reply_len, 3u);
  EXPECT_EQ(out[0], 3);
  EXPECT_EQ(out[2], 1);
  EXPECT_EQ(payloads(*m, 0x1234).at(0), (Bytes{1, 2, 3}));
}

}  // namespace
}  // namespace veltrix::test
