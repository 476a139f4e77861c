// Finding adapters, opening, closing and re-connecting them.
#include "device/registry.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "device/transport.hpp"
#include "tests/support/sim_fixture.hpp"
#include "veltrix/usb_device.h"

namespace veltrix::test {
namespace {

class Registry : public SimTest {
 protected:
  // One command that the adapter echoes back: proves the adapter is usable.
  bool echo_works(uint32_t handle, const std::shared_ptr<sim::Model>& m) {
    m->on(0x0E01, [](sim::Model&, const sim::Command& c) {
      return std::optional<sim::Reply>(sim::Reply{0x0E01, c.payload});
    });
    const uint8_t ping[2] = {0xA5, 0x5A};
    uint8_t back[2] = {0, 0};
    ExchangeResult r = exchange(handle, {.cmd = 0x0E01, .payload = ping, .reply = back});
    return r.ok() && back[0] == 0xA5 && back[1] == 0x5A;
  }
};

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

TEST_F(Registry, ScanWithNullOutputStillRegisters) {
  plug(0x51000003);
  EXPECT_EQ(USB_ScanDevice(nullptr), 1);
  EXPECT_NE(usb_list_post(0x51000003), nullptr);
}

TEST_F(Registry, ForeignOrShortManufacturerIsIgnored) {
  sim::Identity other;
  other.serial = 0x51000004;
  other.manufacturer = "Some Other Maker";
  bed().add_adapter(other);
  sim::Identity brief;
  brief.serial = 0x51000005;
  brief.manufacturer = "VELTRIX";  // a prefix of ours, and under 11 characters
  bed().add_adapter(brief);
  plug(0x51000006);
  unsigned int handles[4] = {0};
  ASSERT_EQ(USB_ScanDevice(handles), 1);
  EXPECT_EQ(handles[0], 0x51000006u);
}

TEST_F(Registry, DeepPortPathThroughHubs) {
  plug(0x51000007, "3.4.2");
  ASSERT_EQ(USB_ScanDevice(nullptr), 1);
  EXPECT_STREQ(usb_list_post(0x51000007)->port_path, "3.4.2");
  EXPECT_EQ(usb_list_post(0x51000007)->port, 2);
}

TEST_F(Registry, OpenCloseAndCloseAgain) {
  auto m = plug(0x51000008);
  ASSERT_EQ(USB_ScanDevice(nullptr), 1);
  EXPECT_EQ(USB_CloseDevice(0x51000008), 0);  // registered but not open
  ASSERT_EQ(USB_OpenDevice(0x51000008), 1);
  EXPECT_EQ(usb_list_post(0x51000008)->opened, 1);
  EXPECT_TRUE(echo_works(0x51000008, m));
  EXPECT_EQ(USB_CloseDevice(0x51000008), 1);
  EXPECT_EQ(USB_CloseDevice(0x51000008), 0);
  EXPECT_EQ(USB_MSG_Send(0x51000008, nullptr, 100), -2);
}

TEST_F(Registry, OpenScansOnceForAnUnknownHandle) {
  auto m = plug(0x51000009);
  EXPECT_EQ(USB_OpenDevice(0x51FFFFFF), 0);
  // The scan that looked for the unknown handle registered what is attached.
  EXPECT_EQ(usb_list_length(), 1);
  EXPECT_EQ(USB_OpenDevice(0x51000009), 1);  // known now: no second scan needed
}

TEST_F(Registry, OpenWithoutScanFindsTheAdapter) {
  auto m = plug(0x5100000A);
  ASSERT_EQ(USB_OpenDevice(0x5100000A), 1);
  EXPECT_TRUE(echo_works(0x5100000A, m));
}

TEST_F(Registry, PositionHandlesNeedNoRegistry) {
  EXPECT_EQ(usb_list_get_index(0xFF000003), 3);
  EXPECT_EQ(usb_list_get_index(0xFF0000FF), 255);
  EXPECT_EQ(usb_list_get_index(0x51000001), -1);
}

TEST_F(Registry, ReplugAtSamePortKeepsHandleAndReconnectsWithoutScan) {
  auto m = plug_and_open(0x5100000B, "2");
  bed().unplug(0x5100000B);
  EXPECT_EQ(USB_RetryConnect(0x5100000B), 0);  // nothing at that port
  bed().replug(0x5100000B);
  EXPECT_EQ(USB_RetryConnect(0x5100000B), 1);
  EXPECT_TRUE(echo_works(0x5100000B, m));
  EXPECT_EQ(usb_list_length(), 1);
}

TEST_F(Registry, WaitResumeGivesUpAfterItsTimeout) {
  plug_and_open(0x5100000C, "2");
  bed().unplug(0x5100000C);
  EXPECT_EQ(USB_WaitResume(0x5100000C, 0), 0);  // one attempt only
  EXPECT_EQ(USB_WaitResume(0x5100000C, 250), 0);
  bed().replug(0x5100000C);
  EXPECT_EQ(USB_WaitResume(0x5100000C, 1000), 1);
}

TEST_F(Registry, AdapterMovedToAnotherPortIsFoundThere) {
  auto m = plug_and_open(0x5100000D, "1");
  bed().replug(0x5100000D, "4.1", /*same_address=*/false);
  unsigned int handles[4] = {0};
  ASSERT_EQ(USB_ScanDevice(handles), 1);
  EXPECT_EQ(handles[0], 0x5100000Du);
  EXPECT_STREQ(usb_list_post(0x5100000D)->port_path, "4.1");
  ASSERT_EQ(USB_OpenDevice(0x5100000D), 1);
  EXPECT_TRUE(echo_works(0x5100000D, m));
}

TEST_F(Registry, UnpluggedAdapterLeavesTheRegistryOnScan) {
  plug(0x5100000E);
  plug_and_open(0x5100000F);
  bed().unplug(0x5100000F);
  unsigned int handles[4] = {0};
  ASSERT_EQ(USB_ScanDevice(handles), 1);
  EXPECT_EQ(handles[0], 0x5100000Eu);
  EXPECT_EQ(usb_list_post(0x5100000F), nullptr);
}

TEST_F(Registry, ResetSendsTheVendorRequest) {
  auto m = plug_and_open(0x51000010);
  ASSERT_EQ(USB_ResetDevice(0x51000010), 1);
  bool seen = false;
  for (const sim::ControlRequest& c : m->control_requests())
    seen = seen || (c.request_type == 0x41 && c.request == 0x60 && c.length == 0);
  EXPECT_TRUE(seen);
  EXPECT_EQ(USB_ResetDevice(0x5100FFFF), 0);
}

// A record handed out by the registry stays readable after its adapter is gone, and the
// same record comes back when the adapter does: callers holding it never see freed memory.
TEST_F(Registry, RecordOutlivesItsAdapterAndReturnsWithIt) {
  auto m = plug_and_open(0x51000011, "2");
  usb_list* rec = usb_list_post(0x51000011);
  ASSERT_NE(rec, nullptr);
  bed().unplug(0x51000011);
  EXPECT_EQ(USB_ScanDevice(nullptr), 0);
  EXPECT_EQ(usb_list_post(0x51000011), nullptr);
  EXPECT_EQ(usb_list_get_index(0x51000011), -1);
  EXPECT_EQ(rec->serial, 0x51000011u);
  EXPECT_EQ(rec->handle, nullptr);
  EXPECT_EQ(rec->opened, 0);
  EXPECT_EQ(USB_MSG_Send(0x51000011, nullptr, 100), -2);
  EXPECT_EQ(USB_CloseDevice(0x51000011), 0);
  bed().replug(0x51000011);
  ASSERT_EQ(USB_ScanDevice(nullptr), 1);
  EXPECT_EQ(usb_list_post(0x51000011), rec);
  EXPECT_EQ(rec->opened, 0);  // back, but closed until opened again
  ASSERT_EQ(USB_OpenDevice(0x51000011), 1);
  EXPECT_TRUE(echo_works(0x51000011, m));
}

// Deleting or clearing records only takes them out of the list: a pointer kept by another
// thread still reads the adapter's last known state.
TEST_F(Registry, DeletedRecordsStayReadable) {
  plug(0x51000012, "1");
  plug(0x51000013, "2");
  ASSERT_EQ(USB_ScanDevice(nullptr), 2);
  usb_list* a = usb_list_post(0x51000012);
  usb_list* b = usb_list_post(0x51000013);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  usb_list_del(a);
  EXPECT_EQ(usb_list_length(), 1);
  EXPECT_EQ(usb_list_post(0x51000012), nullptr);
  EXPECT_EQ(a->serial, 0x51000012u);
  usb_list_clear();
  EXPECT_TRUE(usb_list_is_empty());
  EXPECT_STREQ(b->port_path, "2");
  // A scan brings both back in the records they had.
  ASSERT_EQ(USB_ScanDevice(nullptr), 2);
  EXPECT_EQ(usb_list_post(0x51000012), a);
  EXPECT_EQ(usb_list_post(0x51000013), b);
}

// Scans, opens and closes of one adapter and commands to another run at once: the open
// adapter keeps answering every command, and every scan and open succeeds.
TEST_F(Registry, ConcurrentScansOpensAndCommands) {
  auto busy = plug_and_open(0x51000014, "1");
  plug(0x51000015, "2");
  std::atomic<int> scans_ok{0}, opens_ok{0}, closes_ok{0}, echoes_ok{0};
  std::thread scanner([&] {
    for (int i = 0; i < 20; ++i) {
      unsigned int handles[4] = {0};
      if (USB_ScanDevice(handles) == 2) ++scans_ok;
    }
  });
  std::thread opener([&] {
    for (int i = 0; i < 20; ++i) {
      if (USB_OpenDevice(0x51000015) == 1) ++opens_ok;
      if (USB_CloseDevice(0x51000015) == 1) ++closes_ok;
    }
  });
  busy->on(0x0E01, [](sim::Model&, const sim::Command& c) {
    return std::optional<sim::Reply>(sim::Reply{0x0E01, c.payload});
  });
  for (int i = 0; i < 100; ++i) {
    const uint8_t ping[2] = {uint8_t(i), 0x77};
    uint8_t back[2] = {0, 0};
    ExchangeResult r = exchange(0x51000014, {.cmd = 0x0E01, .payload = ping, .reply = back});
    if (r.ok() && back[0] == uint8_t(i) && back[1] == 0x77) ++echoes_ok;
  }
  scanner.join();
  opener.join();
  EXPECT_EQ(scans_ok.load(), 20);
  EXPECT_EQ(opens_ok.load(), 20);
  EXPECT_EQ(closes_ok.load(), 20);
  EXPECT_EQ(echoes_ok.load(), 100);
  EXPECT_EQ(usb_list_post(0x51000014)->opened, 1);
}

}  // namespace
}  // namespace veltrix::test
