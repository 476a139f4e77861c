// veltrix pwm: PWM outputs and the capture input.
//   veltrix pwm SERIAL set CH FREQ_HZ DUTY_PERCENT [--run US]   configure and start output CH
//   veltrix pwm SERIAL stop CH
//   veltrix pwm SERIAL capture CAP                             print frequency and duty
#include <string>

#include "periph_args.hpp"
#include "tools/cli.hpp"
#include "veltrix/pwm.h"

using namespace periph_cli;

namespace {

void usage(std::FILE* out = stderr) {
  std::fprintf(out,
               "usage: veltrix pwm SERIAL set CH FREQ_HZ DUTY_PERCENT [--run US]\n"
               "       veltrix pwm SERIAL stop CH\n"
               "       veltrix pwm SERIAL capture CAP\n");
}

int set(unsigned h, unsigned char ch, double hz, double duty, unsigned long run_us) {
  double actual = 0;
  int r = PWM2_Init(h, ch, hz, duty, 0, &actual);
  if (r != 0) return fail("pwm", "PWM2_Init", r);
  if ((r = PWM2_Start(h, ch, unsigned(run_us))) != 0) return fail("pwm", "PWM2_Start", r);
  std::printf("channel %u: %.6f Hz (asked %.6f, error %+.4f %%), duty %.2f %%\n", ch, actual, hz,
              (actual - hz) / hz * 100, duty);
  return 0;
}

int stop(unsigned h, unsigned char ch) {
  const int r = PWM2_Stop(h, ch);
  return r == 0 ? 0 : fail("pwm", "PWM2_Stop", r);
}

int capture(unsigned h, unsigned char cap) {
  int r = PWM_CAP_Init(h, cap, PWM_CAP_MODE_PERIOD);
  if (r != 0) return fail("pwm", "PWM_CAP_Init", r);
  PWM_CAP_DATA d{};
  if ((r = PWM_CAP_GetData(h, cap, &d)) != 0) return fail("pwm", "PWM_CAP_GetData", r);
  if (d.PeriodTicks == 0) {
    std::printf("capture %u: no edges\n", cap);
    return 0;
  }
  std::printf("capture %u: %.6f Hz, duty %.3f %% (%u/%u ticks at %u Hz)\n", cap,
              double(d.ClockHz) / d.PeriodTicks, 100.0 * d.HighTicks / d.PeriodTicks, d.HighTicks,
              d.PeriodTicks, d.ClockHz);
  return 0;
}

}  // namespace

int cmd_pwm(int argc, char** argv) {
  if (veltrix::tools::answered_help(argc, argv, usage)) return 0;
  unsigned long serial, ch, run_us = 0;
  double hz = 0, duty = 0;
  const char* run = take_option(argc, argv, "--run");
  if (argc < 4 || !parse_uint(argv[1], 16, 0xFFFFFFFFul, &serial) ||
      !parse_uint(argv[3], 10, 255, &ch) || (run && !parse_uint(run, 10, 0xFFFFFFFFul, &run_us))) {
    usage();
    return 2;
  }
  const std::string op = argv[2];
  const bool ok =
      (op == "set" && argc == 6 && parse_double(argv[4], &hz) && parse_double(argv[5], &duty)) ||
      ((op == "stop" || op == "capture") && argc == 4);
  if (!ok) {
    usage();
    return 2;
  }
  if (!open_adapter("pwm", unsigned(serial))) return 1;
  const unsigned h = unsigned(serial);
  int rc;
  if (op == "set")
    rc = set(h, (unsigned char)ch, hz, duty, run_us);
  else if (op == "stop")
    rc = stop(h, (unsigned char)ch);
  else
    rc = capture(h, (unsigned char)ch);
  USB_CloseDevice(h);
  return rc;
}
