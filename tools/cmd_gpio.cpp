// veltrix gpio: pins of an adapter. MASK and VALUE are hexadecimal pin masks.
//   veltrix gpio SERIAL in MASK [up|down|none]     make pins inputs
//   veltrix gpio SERIAL out MASK [od]              make pins (open-drain) outputs
//   veltrix gpio SERIAL write MASK VALUE
//   veltrix gpio SERIAL read MASK                  print the levels as 0x%08X
//   veltrix gpio SERIAL pulses MASK WIDTH_US PERIOD_US COUNT
#include <string>

#include "periph_args.hpp"
#include "tools/cli.hpp"
#include "veltrix/gpio.h"

using namespace periph_cli;

namespace {

void usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: veltrix gpio SERIAL in MASK [up|down|none]\n"
               "       veltrix gpio SERIAL out MASK [od]\n"
               "       veltrix gpio SERIAL write MASK VALUE\n"
               "       veltrix gpio SERIAL read MASK\n"
               "       veltrix gpio SERIAL pulses MASK WIDTH_US PERIOD_US COUNT\n");
}

int run(unsigned h, int argc, char** argv) {
  const std::string op = argv[2];
  unsigned long mask, a, b, c;
  if (!parse_uint(argv[3], 16, 0xFFFFFFFFul, &mask)) return -100;
  if (op == "in") {
    const std::string pull = argc > 4 ? argv[4] : "none";
    unsigned char code = pull == "up" ? GPIO_PUPD_UP : pull == "down" ? GPIO_PUPD_DOWN : 0;
    if (pull != "up" && pull != "down" && pull != "none") return -100;
    return GPIO_SetInput(h, unsigned(mask), code);
  }
  if (op == "out") {
    if (argc > 4 && std::string(argv[4]) != "od") return -100;
    return argc > 4 ? GPIO_SetOpenDrain(h, unsigned(mask), 0)
                    : GPIO_SetOutput(h, unsigned(mask), 0);
  }
  if (op == "write" && argc == 5 && parse_uint(argv[4], 16, 0xFFFFFFFFul, &a))
    return GPIO_Write(h, unsigned(mask), unsigned(a));
  if (op == "read" && argc == 4) {
    unsigned int v = 0;
    int r = GPIO_Read(h, unsigned(mask), &v);
    if (r == 0) std::printf("0x%08X\n", v);
    return r;
  }
  if (op == "pulses" && argc == 7 && parse_uint(argv[4], 10, 0xFFFFFFFFul, &a) &&
      parse_uint(argv[5], 10, 0xFFFFFFFFul, &b) && parse_uint(argv[6], 10, 0xFFFFFFFFul, &c))
    return GPIO_SendPulses(h, unsigned(mask), unsigned(a), unsigned(b), unsigned(c));
  return -100;
}

}  // namespace

int cmd_gpio(int argc, char** argv) {
  if (veltrix::tools::answered_help(argc, argv, usage)) return 0;
  unsigned long serial;
  if (argc < 4 || !parse_uint(argv[1], 16, 0xFFFFFFFFul, &serial)) {
    usage();
    return 2;
  }
  if (!open_adapter("gpio", unsigned(serial))) return 1;
  int r = run(unsigned(serial), argc, argv);
  USB_CloseDevice(unsigned(serial));
  if (r == -100) {
    usage();
    return 2;
  }
  return r == 0 ? 0 : fail("gpio", argv[2], r);
}
