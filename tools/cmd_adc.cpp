// veltrix adc: one-shot reads and streams of the analog inputs, as CSV.
//   veltrix adc SERIAL read MASK RATE N
//   veltrix adc SERIAL stream --rate N --seconds S [--mask M] [--frame F] [--out FILE.csv]
//                             [--plot FILE.png]
// MASK is hexadecimal (default 01). Rows are "sample,time_s,inN,..." with one column per
// enabled input. --plot draws the captured inputs over time with matplotlib.
#include <unistd.h>

#include <bit>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "periph_args.hpp"
#include "tools/cli.hpp"
#include "veltrix/adc.h"

using namespace periph_cli;

namespace {

void usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: veltrix adc SERIAL read MASK RATE N\n"
               "       veltrix adc SERIAL stream --rate N --seconds S [--mask M] [--frame F]\n"
               "                                [--out FILE.csv] [--plot FILE.png]\n");
}

// Turns the interleaved sample run into rows, one per complete set of inputs.
class CsvWriter {
 public:
  CsvWriter(FILE* f, unsigned mask, int rate) : f_(f), inputs_(std::popcount(mask)), rate_(rate) {
    std::fprintf(f_, "sample,time_s");
    for (int i = 0; i < 8; ++i)
      if (mask >> i & 1) std::fprintf(f_, ",in%d", i);
    std::fprintf(f_, "\n");
    set_.reserve(size_t(inputs_));
  }
  void add(const short* s, int n) {
    for (int i = 0; i < n; ++i) {
      set_.push_back(uint16_t(s[i]));
      if (int(set_.size()) < inputs_) continue;
      std::fprintf(f_, "%llu,%.7f", static_cast<unsigned long long>(row_),
                   double(row_) / double(rate_));
      for (unsigned v : set_) std::fprintf(f_, ",%u", v);
      std::fprintf(f_, "\n");
      set_.clear();
      ++row_;
    }
  }
  unsigned long long rows() const { return row_; }

 private:
  FILE* f_;
  int inputs_;
  int rate_;
  unsigned long long row_ = 0;
  std::vector<unsigned> set_;
};

constexpr const char* kPlotScript = R"py(
import csv, sys
import matplotlib
matplotlib.use("Agg")
import matplotlib.pyplot as plt
with open(sys.argv[1]) as f:
    rows = list(csv.reader(f))
head, data = rows[0], rows[1:]
step = max(1, len(data) // 20000)
data = data[::step]
t = [float(r[1]) for r in data]
fig, ax = plt.subplots(figsize=(11, 4))
for i, name in enumerate(head[2:], start=2):
    ax.plot(t, [int(r[i]) for r in data], label=name, linewidth=0.8)
ax.set_xlabel("time (s)")
ax.set_ylabel("sample (raw 16-bit)")
ax.set_title(sys.argv[3])
ax.legend(loc="upper right")
fig.tight_layout()
fig.savefig(sys.argv[2], dpi=100)
)py";

std::string shell_quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

int plot(const std::string& csv, const std::string& png, const std::string& title) {
  // The packaged plotting library belongs to the system's interpreter, which a user's
  // PATH may hide behind another one.
  const char* python = access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3";
  const std::string cmd = std::string(python) + " - " + shell_quote(csv) + " " + shell_quote(png) +
                          " " + shell_quote(title);
  FILE* p = popen(cmd.c_str(), "w");
  if (p == nullptr) return 1;
  std::fputs(kPlotScript, p);
  int rc = pclose(p);
  if (rc != 0)
    std::fprintf(stderr, "veltrix adc: plotting failed (is python3-matplotlib installed?)\n");
  return rc == 0 ? 0 : 1;
}

int read_once(unsigned h, unsigned mask, int rate, int n) {
  int r = ADC_Init(h, (unsigned char)mask, rate);
  if (r != 0) return fail("adc", "ADC_Init", r);
  std::vector<short> buf(size_t(n) * size_t(std::popcount(mask)));
  r = ADC_Read(h, buf.data(), n);
  if (r < 0) return fail("adc", "ADC_Read", r);
  CsvWriter w(stdout, mask, rate);
  w.add(buf.data(), r);
  return 0;
}

struct StreamArgs {
  unsigned mask = 1;
  int rate = 0;
  double seconds = 0;
  unsigned frame = 0;
  std::string out, png;
};

int stream(unsigned h, const StreamArgs& a) {
  const unsigned inputs = unsigned(std::popcount(a.mask));
  unsigned frame = a.frame;
  if (frame == 0) {  // about 10 ms per frame, whole sets only
    frame = std::max(1u, unsigned(a.rate / 100)) * inputs;
    frame = std::min(frame, ADC_MAX_FRAME_SAMPLES / inputs * inputs);
  }
  std::string csv = a.out;
  if (csv.empty() && !a.png.empty()) csv = a.png + ".csv";
  FILE* f = csv.empty() ? stdout : std::fopen(csv.c_str(), "w");
  if (f == nullptr) {
    std::fprintf(stderr, "veltrix adc: cannot write %s\n", csv.c_str());
    return 1;
  }
  int r = ADC_StartContinueRead(h, (unsigned char)a.mask, a.rate, frame, nullptr);
  if (r != 0) {
    if (f != stdout) std::fclose(f);
    return fail("adc", "ADC_StartContinueRead", r);
  }
  // The header only once there is a stream: a refused start leaves no half CSV behind.
  CsvWriter w(f, a.mask, a.rate);
  std::vector<short> buf(size_t(ADC_MAX_FRAME_SAMPLES) * 8);
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::microseconds(static_cast<long long>(a.seconds * 1e6));
  bool ended = false;  // by itself, before the time asked for
  while (std::chrono::steady_clock::now() < end) {
    int n = ADC_GetData(h, buf.data(), int(buf.size()));
    if (n > 0) {
      w.add(buf.data(), n);
    } else if (ADC_GetStreamState(h, nullptr) == 0) {
      ended = true;
      break;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  ADC_StopContinueRead(h);
  for (int n; (n = ADC_GetData(h, buf.data(), int(buf.size()))) > 0;) w.add(buf.data(), n);
  unsigned int dropped = 0;
  ADC_GetStreamState(h, &dropped);
  if (f != stdout) std::fclose(f);
  std::fprintf(stderr, "veltrix adc: %llu sets of %u inputs, %u frames dropped\n", w.rows(), inputs,
               dropped);
  if (ended) {
    // Every set received is in the CSV; the run still failed.
    std::fprintf(stderr,
                 "veltrix adc: the stream ended early (adapter unplugged or transfer error)\n");
    return 1;
  }
  if (!a.png.empty()) {
    char title[96];
    std::snprintf(title, sizeof title, "adapter %08X, %d samples/s per input", h, a.rate);
    return plot(csv, a.png, title);
  }
  return 0;
}

}  // namespace

int cmd_adc(int argc, char** argv) {
  if (veltrix::tools::answered_help(argc, argv, usage)) return 0;
  StreamArgs a;
  unsigned long serial, v = 0;
  const char* rate = take_option(argc, argv, "--rate");
  const char* secs = take_option(argc, argv, "--seconds");
  const char* mask = take_option(argc, argv, "--mask");
  const char* frame = take_option(argc, argv, "--frame");
  const char* out = take_option(argc, argv, "--out");
  const char* png = take_option(argc, argv, "--plot");
  if (argc < 3 || !parse_uint(argv[1], 16, 0xFFFFFFFFul, &serial)) {
    usage();
    return 2;
  }
  const std::string op = argv[2];
  const unsigned h = unsigned(serial);
  if (op == "read") {
    unsigned long m, r, n;
    if (argc != 6 || !parse_uint(argv[3], 16, 0xFF, &m) || m == 0 ||
        !parse_uint(argv[4], 10, 0x7FFFFFFF, &r) || !parse_uint(argv[5], 10, 1000000, &n) ||
        n == 0) {
      usage();
      return 2;
    }
    if (!open_adapter("adc", h)) return 1;
    int rc = read_once(h, unsigned(m), int(r), int(n));
    USB_CloseDevice(h);
    return rc;
  }
  bool ok = op == "stream" && argc == 3 && rate && secs && parse_uint(rate, 10, 0x7FFFFFFF, &v) &&
            v > 0 && parse_double(secs, &a.seconds) && a.seconds > 0;
  a.rate = int(v);
  if (ok && mask) ok = parse_uint(mask, 16, 0xFF, &v) && v != 0 && (a.mask = unsigned(v));
  if (ok && frame) ok = parse_uint(frame, 10, ADC_MAX_FRAME_SAMPLES, &v) && (a.frame = unsigned(v));
  if (!ok) {
    usage();
    return 2;
  }
  if (out) a.out = out;
  if (png) a.png = png;
  if (!open_adapter("adc", h)) return 1;
  int rc = stream(h, a);
  USB_CloseDevice(h);
  return rc;
}
