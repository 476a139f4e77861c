// veltrix spi: SPI NOR flash programming in the manner of flash programmer tools.
//   veltrix spi SERIAL CH flash id                       JEDEC ID and size
//   veltrix spi SERIAL CH flash read FILE [ADDR [LEN]]   save LEN bytes (default: to the end)
//   veltrix spi SERIAL CH flash write FILE [ADDR]        erase the sectors FILE covers,
//                                                        program it and verify it
//   veltrix spi SERIAL CH flash verify FILE [ADDR]       compare the flash with FILE
//   veltrix spi SERIAL CH flash erase [ADDR LEN]         erase sectors, or the whole chip
// SERIAL, ADDR and LEN are hexadecimal (0x allowed). The flash is driven with the common
// command set (9F ID, 05 status, 06 write enable, 20 sector erase, C7 chip erase, 02 page
// program, 03 read) at 20 MHz. Progress goes to stderr: a bar on a terminal, plain lines
// otherwise.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/cli.hpp"
#include "veltrix/spi.h"
#include "veltrix/usb_device.h"

namespace {

constexpr unsigned kClockHz = 20000000;
constexpr size_t kChunk = 64 * 1024;
constexpr unsigned kSector = 4096;
constexpr int kEraseTimeoutMs = 2000;
constexpr int kChipEraseTimeoutMs = 120000;

void usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: veltrix spi SERIAL CH flash id\n"
               "       veltrix spi SERIAL CH flash read FILE [ADDR [LEN]]\n"
               "       veltrix spi SERIAL CH flash write FILE [ADDR]\n"
               "       veltrix spi SERIAL CH flash verify FILE [ADDR]\n"
               "       veltrix spi SERIAL CH flash erase [ADDR LEN]\n");
}

bool parse_num(const char* s, int base, unsigned long max, unsigned long* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long v = std::strtoul(s, &end, base);
  if (errno != 0 || end == s || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

int fail(const char* what, int code) {
  std::fprintf(stderr, "\nveltrix spi: %s failed (%d)\n", what, code);
  return 1;
}

SPI_FLASH_CONFIG common_commands() {
  SPI_FLASH_CONFIG c{};
  c.Cmd[SPI_FLASH_CMD_WRITE_ENABLE] = 0x06;
  c.Cmd[SPI_FLASH_CMD_WRITE_DISABLE] = 0x04;
  c.Cmd[SPI_FLASH_CMD_READ_DATA] = 0x03;
  c.Cmd[SPI_FLASH_CMD_FAST_READ] = 0x0B;
  c.Cmd[SPI_FLASH_CMD_PAGE_PROGRAM] = 0x02;
  c.Cmd[SPI_FLASH_CMD_SECTOR_ERASE] = 0x20;
  c.Cmd[SPI_FLASH_CMD_BLOCK_ERASE] = 0xD8;
  c.Cmd[SPI_FLASH_CMD_CHIP_ERASE] = 0xC7;
  c.Cmd[SPI_FLASH_CMD_READ_ID] = 0x9F;
  c.Cmd[SPI_FLASH_CMD_READ_STATUS] = 0x05;
  c.Cmd[SPI_FLASH_CMD_WRITE_STATUS] = 0x01;
  c.IDLength = 3;
  return c;
}

// A bar redrawn in place on a terminal; a line per tenth otherwise, so logs stay short.
class Progress {
 public:
  Progress(const char* what, size_t total)
      : what_(what), total_(total ? total : 1), tty_(isatty(STDERR_FILENO) == 1) {}
  void update(size_t done) {
    const int pct = int(done * 100 / total_);
    if (tty_) {
      const int fill = pct / 4;
      std::fprintf(stderr, "\r%-7s [%s%s] %3d%% %zu/%zu bytes", what_,
                   std::string(size_t(fill), '#').c_str(),
                   std::string(size_t(25 - fill), '.').c_str(), pct, done, total_);
      if (done >= total_) std::fprintf(stderr, "\n");
    } else if (pct / 10 != last_tenth_ || done >= total_) {
      last_tenth_ = pct / 10;
      std::fprintf(stderr, "%s: %zu/%zu bytes (%d%%)\n", what_, done, total_, pct);
    }
  }

 private:
  const char* what_;
  size_t total_;
  bool tty_;
  int last_tenth_ = -1;
};

struct Flash {
  int h;
  unsigned char ch;
  size_t size = 0;  // from the ID's capacity byte; 0 when it does not say
};

bool read_file(const char* path, std::vector<unsigned char>* out) {
  FILE* f = std::fopen(path, "rb");
  if (!f) return false;
  unsigned char buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
  bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

int read_range(const Flash& f, unsigned long addr, std::vector<unsigned char>* out,
               const char* label) {
  Progress p(label, out->size());
  for (size_t at = 0; at < out->size(); at += kChunk) {
    const size_t n = std::min(kChunk, out->size() - at);
    int r = SPI_FlashRead(f.h, f.ch, unsigned(addr + at), out->data() + at, int(n));
    if (r != 0) return fail("read", r);
    p.update(at + n);
  }
  return 0;
}

int erase_range(const Flash& f, unsigned long addr, size_t len) {
  const unsigned long first = addr / kSector * kSector;
  const unsigned long end = (addr + len + kSector - 1) / kSector * kSector;
  Progress p("erase", end - first);
  for (unsigned long at = first; at < end; at += kSector) {
    int r = SPI_FlashEraseSector(f.h, f.ch, unsigned(at), 1, kEraseTimeoutMs);
    if (r != 0) return fail("sector erase", r);
    p.update(at + kSector - first);
  }
  return 0;
}

int verify(const Flash& f, unsigned long addr, const std::vector<unsigned char>& want) {
  std::vector<unsigned char> got(want.size());
  if (int r = read_range(f, addr, &got, "verify")) return r;
  auto diff = std::mismatch(want.begin(), want.end(), got.begin());
  if (diff.first != want.end()) {
    const size_t at = size_t(diff.first - want.begin());
    std::fprintf(stderr, "veltrix spi: verify failed at 0x%06lx: flash %02x, file %02x\n",
                 addr + at, got[at], want[at]);
    return 1;
  }
  std::fprintf(stderr, "verified %zu bytes\n", want.size());
  return 0;
}

int write(const Flash& f, unsigned long addr, const std::vector<unsigned char>& data) {
  if (int r = erase_range(f, addr, data.size())) return r;
  Progress p("write", data.size());
  for (size_t at = 0; at < data.size(); at += kChunk) {
    const size_t n = std::min(kChunk, data.size() - at);
    int r = SPI_FlashWrite(f.h, f.ch, unsigned(addr + at),
                           const_cast<unsigned char*>(data.data() + at), int(n));
    if (r != 0) return fail("write", r);
    p.update(at + n);
  }
  return verify(f, addr, data);
}

int run(Flash& f, int argc, char** argv) {
  const std::string op = argv[4];
  unsigned char id[3];
  int r = SPI_FlashReadID(f.h, f.ch, id);
  if (r != 0) return fail("reading the flash ID", r);
  // The third ID byte of common parts is log2 of the size in bytes.
  if (id[2] >= 10 && id[2] <= 28) f.size = size_t(1) << id[2];
  if (op == "id" && argc == 5) {
    std::printf("JEDEC ID %02X %02X %02X", id[0], id[1], id[2]);
    if (f.size) std::printf(", %zu KiB", f.size / 1024);
    std::printf("\n");
    return 0;
  }
  unsigned long addr = 0, len = 0;
  const int file_ops = op == "read" || op == "write" || op == "verify";
  if (file_ops && argc >= 6 && argc <= (op == "read" ? 8 : 7) &&
      (argc < 7 || parse_num(argv[6], 16, 0xFFFFFFFFul, &addr)) &&
      (argc < 8 || parse_num(argv[7], 16, 0x7FFFFFFFul, &len))) {
    const char* path = argv[5];
    if (op == "read") {
      if (argc < 8) {
        if (f.size == 0 || addr >= f.size) {
          std::fprintf(stderr, "veltrix spi: flash size unknown: give LEN\n");
          return 2;
        }
        len = f.size - addr;
      }
      std::vector<unsigned char> data(len);
      if (int rr = read_range(f, addr, &data, "read")) return rr;
      FILE* out = std::fopen(path, "wb");
      if (!out || std::fwrite(data.data(), 1, data.size(), out) != data.size() ||
          std::fclose(out) != 0) {
        std::fprintf(stderr, "veltrix spi: cannot write %s\n", path);
        return 1;
      }
      return 0;
    }
    std::vector<unsigned char> data;
    if (!read_file(path, &data)) {
      std::fprintf(stderr, "veltrix spi: cannot read %s\n", path);
      return 1;
    }
    if (f.size && addr + data.size() > f.size) {
      std::fprintf(stderr, "veltrix spi: %zu bytes at 0x%lx do not fit the %zu-byte flash\n",
                   data.size(), addr, f.size);
      return 2;
    }
    return op == "write" ? write(f, addr, data) : verify(f, addr, data);
  }
  if (op == "erase" && argc == 5) {
    std::fprintf(stderr, "erasing the whole chip...\n");
    r = SPI_FlashEraseChip(f.h, f.ch, kChipEraseTimeoutMs);
    if (r != 0) return fail("chip erase", r);
    std::fprintf(stderr, "erased\n");
    return 0;
  }
  if (op == "erase" && argc == 7 && parse_num(argv[5], 16, 0xFFFFFFFFul, &addr) &&
      parse_num(argv[6], 16, 0x7FFFFFFFul, &len))
    return erase_range(f, addr, len);
  usage();
  return 2;
}

}  // namespace

int cmd_spi(int argc, char** argv) {
  if (veltrix::tools::answered_help(argc, argv, usage)) return 0;
  unsigned long serial, ch;
  if (argc < 5 || std::strcmp(argv[3], "flash") != 0 ||
      !parse_num(argv[1], 16, 0xFFFFFFFFul, &serial) || !parse_num(argv[2], 10, 1, &ch)) {
    usage();
    return 2;
  }
  if (USB_ScanDevice(nullptr) <= 0 || USB_OpenDevice(unsigned(serial)) != 1) {
    std::fprintf(stderr, "veltrix spi: adapter %08lX not found or cannot be opened\n", serial);
    return 1;
  }
  Flash f{int(unsigned(serial)), static_cast<unsigned char>(ch)};
  SPI_FLASH_CONFIG c = common_commands();
  int rc = SPI_FlashInit(f.h, f.ch, kClockHz, &c);
  rc = rc == 0 ? run(f, argc, argv) : fail("flash set-up", rc);
  USB_CloseDevice(unsigned(serial));
  return rc;
}
