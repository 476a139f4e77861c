// Writes the reply fuzzer's starting inputs: every operation, on both adapters and with a
// few argument patterns, answered by the virtual adapter's firmware model. Each input holds
// the replies the model gave, so fuzzing starts from exchanges that succeed.
//   reply_seeds OUT_DIR
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "device/wire.hpp"
#include "fuzz/reply/fake_clock.hpp"
#include "fuzz/reply/fake_usb.hpp"
#include "fuzz/reply/harness.hpp"
#include "sim/device_services.hpp"
#include "sim/model.hpp"

using namespace veltrix::fuzz;
namespace sim = veltrix::sim;

namespace {

constexpr int kVariants = 6;
constexpr size_t kLargestSeed = 16 * 1024;

std::unique_ptr<sim::Model> make_model(uint32_t serial) {
  auto m = std::make_unique<sim::Model>(sim::Identity{.serial = serial});
  sim::install_families(*m);
  sim::device_services(*m).firmware_version = firmware_of(serial);
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUT_DIR\n", argv[0]);
    return 2;
  }
  FastTime fast;
  set_up();
  auto classic = make_model(kClassicSerial);
  auto fd = make_model(kFdSerial);
  std::mt19937 rng(7);
  int written = 0;
  for (size_t op = 0; op < ops().size(); ++op) {
    for (uint8_t dev = 0; dev < 2; ++dev) {
      for (int v = 0; v < kVariants; ++v) {
        std::vector<uint8_t> input{0, uint8_t(op), dev};
        for (size_t i = 0; i < kArgBytes; ++i) input.push_back(uint8_t(rng()));
        input[3] = uint8_t(v);  // the first argument byte mostly picks the port or variant
        std::vector<uint8_t> replies;
        bool capture = false;
        Responder answer = [&](uint32_t serial, uint8_t ep, uint32_t cmd,
                               std::span<const uint8_t> payload) {
          sim::Model& model = serial == kFdSerial ? *fd : *classic;
          auto r = model.dispatch({ep, cmd, {payload.begin(), payload.end()}});
          if (!r) return;
          queue_reply(r->code, r->payload);
          if (!capture) return;
          uint8_t h[8];
          veltrix::wire::put_be32(h, r->code);
          veltrix::wire::put_be32(h + 4, uint32_t(r->payload.size()));
          replies.insert(replies.end(), h, h + 8);
          replies.insert(replies.end(), r->payload.begin(), r->payload.end());
        };
        restore_baseline(answer);
        set_responder(answer);
        capture = true;
        run_steps(std::span<const uint8_t>(input).subspan(1), 1);
        set_responder(nullptr);
        reset_in();
        // Polling loops answered until their time-out make inputs that only slow fuzzing.
        if (replies.size() > kLargestSeed) continue;
        input.insert(input.end(), replies.begin(), replies.end());
        std::string path = std::string(argv[1]) + "/" + ops()[op].name + "-" + std::to_string(dev) +
                           "-" + std::to_string(v);
        std::FILE* f = std::fopen(path.c_str(), "wb");
        if (f == nullptr || std::fwrite(input.data(), 1, input.size(), f) != input.size()) {
          std::perror(path.c_str());
          return 1;
        }
        std::fclose(f);
        ++written;
      }
    }
  }
  std::printf("%d inputs written\n", written);
  return 0;
}
