// Slave mode: the plain requests, and continuous reading with its reader thread, FIFO,
// callback and stop paths, against a remote master that clocks a stream in.
#include <atomic>
#include <chrono>
#include <thread>

#include "peripherals/spi/continuous.hpp"
#include "tests/peripherals/spi/spi_fixture.hpp"

namespace veltrix::test {
namespace {

constexpr size_t kFifo = SPI_SLAVE_FIFO_BYTES;

Bytes pattern(size_t n) {
  Bytes b(n);
  // Not a power-of-two period, so a shifted or dropped chunk cannot line up by chance.
  for (size_t i = 0; i < n; ++i) b[i] = uint8_t((i * 131 + i / 251) & 0xFF);
  return b;
}

class SpiSlave : public SpiTest {
 protected:
  void stream(uint8_t ch, const Bytes& b, double rate = 0) {
    with_channel(ch, [&](sim::SpiChannel& c) { c.master_stream(b, rate); });
  }
  // Waits (bounded) until the adapter has handed over the whole stream.
  void wait_served(uint8_t ch) {
    for (int i = 0; i < 60000; ++i) {
      bool done =
          with_channel(ch, [](sim::SpiChannel& c) { return c.stream_served == c.stream.size(); });
      if (done) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    FAIL() << "the reader never fetched the whole stream";
  }
  Bytes drain_fifo(uint8_t ch) {
    Bytes all;
    std::vector<unsigned char> buf(100000);
    for (;;) {
      int n = SPI_SlaveGetBytes(kSpiDev, ch, buf.data(), int(buf.size()));
      EXPECT_GE(n, 0);
      if (n <= 0) return all;
      all.insert(all.end(), buf.begin(), buf.begin() + n);
    }
  }
};

TEST_F(SpiSlave, WriteBytesReturnsTheAdaptersBigEndianCount) {
  unsigned char d[3] = {1, 2, 3};
  EXPECT_EQ(SPI_SlaveWriteBytes(kSpiDev, 1, d, 3, 0x100), 3);
  EXPECT_EQ(sent(0x205).at(0), (Bytes{1, 0, 0, 1, 0, 1, 2, 3}));
  raw_reply(0x205, {0x00, 0x01, 0x02, 0x03});
  EXPECT_EQ(SPI_SlaveWriteBytes(kSpiDev, 1, d, 3, 10), 0x010203);
  raw_reply(0x205, {0xFF, 0xFF, 0xFF, 0xFE});
  EXPECT_EQ(SPI_SlaveWriteBytes(kSpiDev, 1, d, 3, 10), SPI_ERR_REPLY);
  raw_reply(0x205, {0x00, 0x01});
  EXPECT_EQ(SPI_SlaveWriteBytes(kSpiDev, 1, d, 3, 10), SPI_ERR_REPLY);
}

TEST_F(SpiSlave, WriteReadCombinesBothCountsAndCopiesWhatCame) {
  stream(0, {0xA1, 0xA2, 0xA3});
  unsigned char w[2] = {0x55, 0x66};
  unsigned char r[8] = {};
  EXPECT_EQ(SPI_SlaveWriteReadBytes(kSpiDev, 0, w, 2, r, 8, 20), (2 << 16) | 3);
  EXPECT_EQ(Bytes(r, r + 3), (Bytes{0xA1, 0xA2, 0xA3}));
  EXPECT_EQ(sent(0x222).at(0), (Bytes{0, 0, 0, 0, 20, 0, 0, 0, 8, 0x55, 0x66}));
  stream(0, {0xB1});
  EXPECT_EQ(SPI_SlaveReadWriteBytes(kSpiDev, 0, r, 8, w, 1, 20), (1 << 16) | 1);
  EXPECT_EQ(r[0], 0xB1);
  EXPECT_EQ(sent(0x224).at(0), (Bytes{0, 0, 0, 0, 20, 0, 0, 0, 8, 0x55}));
}

struct SlaveReply {
  const char* name;
  Bytes payload;
  int result;
};

TEST_F(SpiSlave, WriteReadDistrustsTheAdaptersCount) {
  const SlaveReply cases[] = {
      {"under eight bytes", {0, 0, 0, 1, 0, 0, 0}, SPI_ERR_REPLY},
      {"count beyond the buffer", {0, 0, 0, 0, 0, 0, 0, 5, 1, 2, 3, 4, 5}, SPI_ERR_REPLY},
      {"count beyond the data", {0, 0, 0, 0, 0, 0, 0, 3, 1, 2}, SPI_ERR_REPLY},
      {"good", {0, 0, 0, 1, 0, 0, 0, 2, 7, 8}, (1 << 16) | 2},
  };
  for (const SlaveReply& c : cases) {
    raw_reply(0x222, c.payload);
    unsigned char r[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(SPI_SlaveWriteReadBytes(kSpiDev, 0, nullptr, 0, r, 4, 1), c.result) << c.name;
    if (c.result < 0) {
      EXPECT_EQ(r[0], 0xEE) << c.name;
    }
  }
}

TEST_F(SpiSlave, ReadFromBufferCutsAtItsDocumentedRoom) {
  std::vector<unsigned char> buf(SPI_SLAVE_READ_MAX + 8, 0x11);
  raw_reply(0x223, Bytes(SPI_SLAVE_READ_MAX + 100, 0x77));
  EXPECT_EQ(SPI_SlaveReadBytesFromBuffer(kSpiDev, 1, buf.data(), 5), SPI_SLAVE_READ_MAX);
  EXPECT_EQ(buf[SPI_SLAVE_READ_MAX - 1], 0x77);
  EXPECT_EQ(buf[SPI_SLAVE_READ_MAX], 0x11);
  stream(1, pattern(70000));
  EXPECT_EQ(SPI_SlaveReadBytesFromBuffer(kSpiDev, 3, buf.data(), 5), SPI_SLAVE_READ_MAX);
  EXPECT_EQ(SPI_SlaveReadBytesFromBuffer(kSpiDev, 1, buf.data(), 5), 70000 - SPI_SLAVE_READ_MAX);
  // Only the channel's lowest bit goes out.
  for (const Bytes& p : sent(0x223)) EXPECT_EQ(p, (Bytes{1}));
}

TEST_F(SpiSlave, FifoAtItsBoundLosesNothing) {
  const Bytes data = pattern(kFifo);
  stream(0, data);
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0, nullptr), 0);
  wait_served(0);
  ASSERT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 0), 0);
  EXPECT_FALSE(spi::slave_reader_running(kSpiDev));
  EXPECT_EQ(drain_fifo(0), data);
  EXPECT_EQ(spi::slave_fifo_dropped(kSpiDev, 0), 0u);
  EXPECT_EQ(sent(0x225).size(), 1u);
  EXPECT_EQ(sent(0x226).size(), 1u);
}

TEST_F(SpiSlave, FifoOverflowDropsTheOldest100Bytes) {
  const Bytes data = pattern(kFifo + 100);
  stream(0, data);
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0, nullptr), 0);
  wait_served(0);
  ASSERT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 0), 0);
  EXPECT_EQ(drain_fifo(0), Bytes(data.begin() + 100, data.end()));
  EXPECT_EQ(spi::slave_fifo_dropped(kSpiDev, 0), 100u);
}

TEST_F(SpiSlave, EightMebibytesAtFullRateKeepTheNewestTwo) {
  const Bytes data = pattern(8u << 20);
  stream(1, data, 64e6);
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 1, nullptr), 0);
  wait_served(1);
  ASSERT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 1), 0);
  EXPECT_EQ(spi::slave_fifo_dropped(kSpiDev, 1), (8u << 20) - kFifo);
  const Bytes got = drain_fifo(1);
  ASSERT_EQ(got.size(), kFifo);
  EXPECT_TRUE(std::equal(got.begin(), got.end(), data.end() - long(kFifo)));
}

std::atomic<size_t> g_cb_bytes{0};
std::vector<uint8_t>* g_cb_data = nullptr;

TEST_F(SpiSlave, EightMebibytesThroughTheCallbackArriveWhole) {
  const Bytes data = pattern(8u << 20);
  Bytes got;
  got.reserve(data.size());
  g_cb_data = &got;
  stream(0, data, 64e6);
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0,
                                  [](int h, int ch, unsigned char* p, int n) {
                                    if (h != kSpiDev || ch != 0 || n <= 0) return;
                                    g_cb_data->insert(g_cb_data->end(), p, p + n);
                                    g_cb_bytes += size_t(n);
                                  }),
            0);
  wait_served(0);
  ASSERT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 0), 0);  // joins the reader
  EXPECT_EQ(g_cb_bytes.load(), data.size());
  EXPECT_TRUE(got == data);
  EXPECT_EQ(drain_fifo(0).size(), 0u);
}

TEST_F(SpiSlave, ReaderEndsOnAFailedFetchAndKeepsWhatItHad) {
  stream(0, pattern(1000));
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0, nullptr), 0);
  wait_served(0);
  fault(sim::FaultKind::WrongCode, 0x223, 0x999);
  for (int i = 0; i < 5000 && spi::slave_reader_running(kSpiDev); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_FALSE(spi::slave_reader_running(kSpiDev));
  EXPECT_EQ(drain_fifo(0), pattern(1000));
  // Nobody reads any more: stopping only tells the adapter.
  ASSERT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 0), 0);
  // A new start gets a new reader.
  stream(0, pattern(10));
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0, nullptr), 0);
  wait_served(0);
  ASSERT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 0), 0);
  EXPECT_EQ(drain_fifo(0), pattern(10));
}

TEST_F(SpiSlave, UnplugEndsTheReaderAndKeepsTheFifo) {
  stream(0, pattern(5000));
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0, nullptr), 0);
  wait_served(0);
  fault(sim::FaultKind::Unplug, 0x223);
  for (int i = 0; i < 10000 && spi::slave_reader_running(kSpiDev); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_FALSE(spi::slave_reader_running(kSpiDev));
  EXPECT_EQ(drain_fifo(0), pattern(5000));
  // The adapter is gone: stopping tells it nothing and says so.
  EXPECT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 0), SPI_ERR_SEND);
  unsigned char b[4];
  EXPECT_EQ(SPI_SlaveReadBytes(kSpiDev, 0, b, 4, 20), SPI_ERR_SEND);
}

TEST_F(SpiSlave, OneReaderServesBothChannelsUntilBothStop) {
  stream(0, pattern(300));
  stream(1, pattern(500));
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0, nullptr), 0);
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 1, nullptr), 0);
  wait_served(0);
  wait_served(1);
  ASSERT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 0), 0);
  EXPECT_TRUE(spi::slave_reader_running(kSpiDev));
  ASSERT_EQ(SPI_SlaveContinueWriteReadStop(kSpiDev, 1), 0);
  EXPECT_FALSE(spi::slave_reader_running(kSpiDev));
  EXPECT_EQ(drain_fifo(0), pattern(300));
  EXPECT_EQ(drain_fifo(1), pattern(500));
  EXPECT_EQ(sent(0x226), (std::vector<Bytes>{{0}, {1}}));
}

TEST_F(SpiSlave, ReadBytesCollectsExactlyTheLengthAndQueuesTheRest) {
  const Bytes data = pattern(100000);
  stream(0, data);
  std::vector<unsigned char> buf(70000);
  ASSERT_EQ(SPI_SlaveReadBytes(kSpiDev, 0, buf.data(), 70000, 5000), 70000);
  EXPECT_TRUE(std::equal(buf.begin(), buf.end(), data.begin()));
  // The second fetch brought 38560 bytes; the 30000 beyond the length wait in the FIFO.
  EXPECT_EQ(drain_fifo(0), Bytes(data.begin() + 70000, data.end()));
  EXPECT_EQ(sent(0x225).size(), 1u);
}

TEST_F(SpiSlave, ReadBytesReturnsWhatCameWhenTheBudgetIsSpent) {
  stream(0, pattern(10));
  std::vector<unsigned char> buf(100);
  EXPECT_EQ(SPI_SlaveReadBytes(kSpiDev, 0, buf.data(), 100, 30), 10);
  EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + 10, pattern(10).begin()));
}

std::atomic<int> g_stop_result{1};

// A callback may stop its own reading: the reader cannot join itself, so it is left to
// end after the callback returns, and the stop still reaches the adapter.
TEST_F(SpiSlave, CallbackStopsItsOwnReading) {
  stream(0, pattern(500));
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0,
                                  [](int h, int ch, unsigned char*, int) {
                                    if (g_stop_result.load() == 1)
                                      g_stop_result = SPI_SlaveContinueReadStop(h, uint8_t(ch));
                                  }),
            0);
  for (int i = 0; i < 10000 && spi::slave_reader_running(kSpiDev); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_FALSE(spi::slave_reader_running(kSpiDev));
  EXPECT_EQ(g_stop_result.load(), 0);
  EXPECT_EQ(sent(0x226), (std::vector<Bytes>{{0}}));
  // The next start joins the reader that ended and starts a new one.
  stream(0, pattern(20));
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0, nullptr), 0);
  wait_served(0);
  ASSERT_EQ(SPI_SlaveContinueReadStop(kSpiDev, 0), 0);
  EXPECT_EQ(drain_fifo(0), pattern(20));
}

std::atomic<int> g_chunks{0};

class SpiTakeaway : public SpiSlave, public ::testing::WithParamInterface<Takeaway> {};

// A close, or an unplug and then a close, while both channels read (one through a
// callback): the reader is joined, the adapter is asked for nothing more (a reader left
// running would re-open it), and no callback comes afterwards.
TEST_P(SpiTakeaway, ClosingJoinsTheReaderAndFetchesNoMore) {
  const size_t threads = thread_count();
  stream(0, pattern(4000));
  stream(1, pattern(3000));
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 0,
                                  [](int, int, unsigned char*, int n) {
                                    if (n > 0) ++g_chunks;
                                  }),
            0);
  ASSERT_EQ(SPI_SlaveContinueRead(kSpiDev, 1, nullptr), 0);
  wait_served(0);
  wait_served(1);
  // The reply that carried channel 1's last bytes is in the FIFO once the reader has
  // asked for channel 1 again; an unplug would otherwise take that reply with it.
  const uint64_t asked = with_channel(1, [](sim::SpiChannel& c) { return c.fetches; });
  for (int i = 0;
       i < 10000 && with_channel(1, [](sim::SpiChannel& c) { return c.fetches; }) <= asked; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  m_->clear_record();
  take_away(GetParam());
  EXPECT_FALSE(spi::slave_reader_running(kSpiDev));
  EXPECT_EQ(thread_count(), threads);
  if (GetParam() == Takeaway::Close) {
    EXPECT_EQ(sent(0x226), (std::vector<Bytes>{{0}, {1}}));  // each channel told to stop
  }
  m_->clear_record();
  const int chunks = g_chunks.load();
  stream(0, pattern(100));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(sent(0x223).empty());
  EXPECT_EQ(g_chunks.load(), chunks);
  EXPECT_EQ(drain_fifo(1), pattern(3000));  // what came before the close stays
}

INSTANTIATE_TEST_SUITE_P(Ways, SpiTakeaway,
                         ::testing::Values(Takeaway::Close, Takeaway::UnplugThenClose),
                         takeaway_name);

}  // namespace
}  // namespace veltrix::test
