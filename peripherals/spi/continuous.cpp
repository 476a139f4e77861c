#include "peripherals/spi/continuous.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <mutex>
#include <vector>

#include "device/abi.hpp"
#include "device/close_hooks.hpp"
#include "device/locks.hpp"
#include "peripherals/spi/commands.hpp"
#include "peripherals/spi/slave.hpp"
#include "peripherals/spi/spi_state.hpp"

namespace veltrix::spi {
namespace {

constexpr size_t kHalf = SPI_SLAVE_READ_MAX;
constexpr auto kReaderPause = std::chrono::milliseconds(1);
constexpr auto kStopGrace = std::chrono::milliseconds(10);
// The adapter answers a fetch at once with what it has, so the receive time-out only
// matters for a late answer: taken below 1 it is the transport's own, because a fetch
// given up after 11 ms would leave its late answer to misframe the next command and end
// the reader with the bytes in it lost.
constexpr int kPollTimeout = 0;
constexpr int kPollBudgetMs = 10;

// The FIFO's data lock is keyed by the slot, not by the caller's spelling of the handle
// (a serial and its 0xFF0000nn position form name the same FIFO).
uint32_t fifo_key(int slot) { return 0xFF000000u | uint32_t(slot); }

void append(int slot, int ch, const uint8_t* p, size_t n) {
  SlaveChannel& c = state().slave[size_t(slot)].ch[size_t(ch)];
  ChannelLock g(LockFamily::SpiData, fifo_key(slot), ch);
  c.fifo.push_all({p, n});
  c.fifo_size.store(c.fifo.size());
}

bool any_reading(const SlaveSlot& s) { return s.ch[0].reading.load() || s.ch[1].reading.load(); }

void reader_loop(int slot) {
  SlaveSlot& s = state().slave[size_t(slot)];
  const int handle = int(s.handle.load());
  // Two halves per channel, used in turn: a callback's chunk stays intact while the
  // next read fills the other half.
  std::array<std::vector<uint8_t>, kChannels> work{std::vector<uint8_t>(2 * kHalf),
                                                   std::vector<uint8_t>(2 * kHalf)};
  std::array<size_t, kChannels> half{0, 0};
  for (;;) {
    for (int ch = 0; ch < kChannels; ++ch) {
      SlaveChannel& c = s.ch[size_t(ch)];
      if (!c.reading.load()) continue;
      uint8_t* dst = work[size_t(ch)].data() + half[size_t(ch)] * kHalf;
      half[size_t(ch)] ^= 1;
      const int n = read_from_buffer(handle, uint8_t(ch), dst, kPollTimeout);
      if (n < 0) {
        // The adapter is gone or out of step: nobody reads any more.
        std::scoped_lock g(s.mutex);
        s.ch[0].reading.store(false);
        s.ch[1].reading.store(false);
        s.running = false;
        return;
      }
      if (n == 0) continue;
      if (SPI_GET_DATA_HANDLE cb = c.callback.load()) {
        cb(handle, ch, dst, n);
      } else {
        append(slot, ch, dst, size_t(n));
      }
    }
    {
      // Decided under the mutex, so a start that sets a flag either sees this reader
      // still running or starts a new one.
      std::scoped_lock g(s.mutex);
      if (!any_reading(s)) {
        s.running = false;
        return;
      }
    }
    std::this_thread::sleep_for(kReaderPause);
  }
}

int stop(int handle, uint8_t ch);

// Joins the slot's reader, unless the caller is the reader itself (a data callback that
// stops or closes): it ends after the callback returns and the next start joins it.
// The caller holds s.control.
void join_reader(SlaveSlot& s) {
  if (s.reader.joinable() && s.reader.get_id() != std::this_thread::get_id()) s.reader.join();
}

// A close stops each reading channel as SPI_SlaveContinueReadStop does, and joins a
// reader that ended on its own (unplug, failed fetch): left running, the reader's next
// fetch would re-open the adapter through the send retry.
void stop_for_close(uint32_t h) {
  const int slot = slot_of(int(h));
  if (slot < 0) return;
  SlaveSlot& s = state().slave[size_t(slot)];
  for (int ch = 0; ch < kChannels; ++ch)
    if (s.ch[size_t(ch)].reading.load()) stop(int(h), uint8_t(ch));
  std::scoped_lock control(s.control);
  join_reader(s);
}

int start(int handle, uint8_t ch, SPI_GET_DATA_HANDLE cb) {
  const int slot = slot_of(handle);
  if (slot < 0) return SPI_ERR_SEND;
  static std::once_flag hooked;
  std::call_once(hooked, [] { add_close_hook(stop_for_close); });
  SlaveSlot& s = state().slave[size_t(slot)];
  SlaveChannel& c = s.ch[ch & 1];
  std::scoped_lock control(s.control);
  if (int r = continuous_command(handle, ch, kCmdSlaveStartContinue)) return r;
  {
    ChannelLock g(LockFamily::SpiData, fifo_key(slot), ch & 1);
    c.fifo.clear();
    c.fifo_size.store(0);
  }
  s.handle.store(uint32_t(handle));
  c.callback.store(cb);
  bool need_thread;
  {
    std::scoped_lock g(s.mutex);
    c.reading.store(true);
    need_thread = !s.running;
    s.running = true;
  }
  if (!need_thread) return SPI_SUCCESS;
  if (s.reader.joinable()) s.reader.join();  // one that ended on its own
  try {
    s.reader = std::thread(reader_loop, slot);
  } catch (...) {
    std::scoped_lock g(s.mutex);
    s.running = false;
    c.reading.store(false);
    return SPI_ERR_REPLY;
  }
  return SPI_SUCCESS;
}

int stop(int handle, uint8_t ch) {
  const int slot = slot_of(handle);
  if (slot < 0) return SPI_ERR_SEND;
  SlaveSlot& s = state().slave[size_t(slot)];
  std::scoped_lock control(s.control);
  if (any_reading(s)) {
    s.ch[ch & 1].reading.store(false);
    if (s.reader.joinable()) {
      std::this_thread::sleep_for(kStopGrace);
      // With both flags clear the reader ends at its next turn; no start can set one
      // while `control` is held.
      if (!any_reading(s)) join_reader(s);
    }
  } else {
    join_reader(s);  // one that ended on its own (unplug, failed fetch)
  }
  return continuous_command(handle, ch, kCmdSlaveStopContinue);
}

int get_bytes(int handle, uint8_t ch, uint8_t* buf, int max) {
  if (buf == nullptr || max < 0) return SPI_ERR_PARAMETER;
  const int slot = slot_of(handle);
  if (slot < 0) return SPI_ERR_SEND;
  SlaveChannel& c = state().slave[size_t(slot)].ch[ch & 1];
  if (c.fifo_size.load() == 0) return 0;
  ChannelLock g(LockFamily::SpiData, fifo_key(slot), ch & 1);
  size_t n = c.fifo.drain({buf, std::min(size_t(max), c.fifo.size())});
  c.fifo_size.store(c.fifo.size());
  return int(n);
}

int read_bytes(int handle, uint8_t ch, uint8_t* buf, int len, int timeout) {
  if (buf == nullptr || len < 0) return SPI_ERR_PARAMETER;
  const int slot = slot_of(handle);
  if (slot < 0) return SPI_ERR_SEND;
  if (int r = continuous_command(handle, ch, kCmdSlaveStartContinue)) return r;
  std::vector<uint8_t> chunk(kHalf);
  int got = 0;
  int64_t budget = timeout;
  while (got < len) {
    const int n = read_from_buffer(handle, ch, chunk.data(), kPollTimeout);
    if (n < 0) return n;
    const int take = std::min(n, len - got);
    std::copy_n(chunk.begin(), take, buf + got);
    got += take;
    // A chunk cannot be asked to be smaller: what does not fit waits in the FIFO.
    if (n > take) append(slot, ch & 1, chunk.data() + take, size_t(n - take));
    if (got >= len) break;
    if (timeout >= 1) {
      budget -= kPollBudgetMs;
      if (budget <= 0) break;
    }
    if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(kPollBudgetMs));
  }
  return got;
}

}  // namespace

uint64_t slave_fifo_dropped(int handle, uint8_t ch) {
  const int slot = slot_of(handle);
  if (slot < 0) return 0;
  ChannelLock g(LockFamily::SpiData, fifo_key(slot), ch & 1);
  return state().slave[size_t(slot)].ch[ch & 1].fifo.dropped();
}

bool slave_reader_running(int handle) {
  const int slot = slot_of(handle);
  if (slot < 0) return false;
  SlaveSlot& s = state().slave[size_t(slot)];
  std::scoped_lock g(s.mutex);
  return s.running;
}

}  // namespace veltrix::spi

using namespace veltrix;
using namespace veltrix::spi;

extern "C" {

VELTRIX_EXPORT(int, SPI_SlaveContinueRead, (int h, unsigned char ch, SPI_GET_DATA_HANDLE cb),
               SPI_ERR_REPLY, { return start(h, ch, cb); })

VELTRIX_EXPORT(int, SPI_SlaveGetBytes, (int h, unsigned char ch, unsigned char* buf, int max),
               SPI_ERR_PARAMETER, { return get_bytes(h, ch, buf, max); })

VELTRIX_EXPORT(int, SPI_SlaveContinueReadStop, (int h, unsigned char ch), SPI_ERR_REPLY,
               { return stop(h, ch); })

VELTRIX_EXPORT(int, SPI_SlaveContinueWriteReadStop, (int h, unsigned char ch), SPI_ERR_REPLY,
               { return stop(h, ch); })

VELTRIX_EXPORT(int, SPI_SlaveReadBytes,
               (int h, unsigned char ch, unsigned char* buf, int len, int timeout), SPI_ERR_REPLY,
               { return read_bytes(h, ch, buf, len, timeout); })

}  // extern "C"
