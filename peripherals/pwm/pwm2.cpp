// The PWM2 layer: one output by channel number, in hertz and percent.
//
// It keeps, per adapter slot and output, the period and duty cycle it last configured, so
// that a duty change scales against the period actually running and a frequency change
// keeps the duty. That table is guarded by its own mutex, a leaf lock: it is never held
// during an exchange, and it is written only after the adapter accepted the change.
#include <array>
#include <cmath>
#include <mutex>

#include "device/abi.hpp"
#include "peripherals/command.hpp"
#include "peripherals/pwm/commands.hpp"
#include "peripherals/pwm/models.hpp"
#include "peripherals/pwm/timer_math.hpp"

namespace veltrix::pwm {
namespace {

constexpr double kDefaultDuty = 50.0;

struct Output {
  uint16_t period = 0;  // 0: never configured through this layer
  double duty = kDefaultDuty;
};

struct Pwm2State {
  std::mutex mutex;
  std::array<std::array<Output, kOutputs>, periph::kSlots> outputs;  // guarded by mutex
};

Pwm2State& state() {
  static Pwm2State* s = new Pwm2State;  // never destroyed: exports may run during exit
  return *s;
}

bool valid_duty(double duty) { return std::isfinite(duty) && duty >= 0 && duty <= 100; }

// Where an output stands after the common checks.
struct Target {
  int code = PWM_SUCCESS;
  int slot = -1;
  uint8_t mask = 0;
  int index = 0;
};

Target target(uint32_t h, uint8_t channel) {
  Target t;
  t.slot = periph::slot_of(h);
  t.mask = channel_mask(h, channel);
  t.index = channel_index(h, channel);
  if (t.slot < 0)
    t.code = PWM_ERR_PARAMETER;
  else if (t.mask == 0)
    t.code = PWM2_ERR_CHANNEL;
  return t;
}

void remember(const Target& t, uint16_t period, double duty) {
  std::scoped_lock g(state().mutex);
  state().outputs[t.slot][t.index] = {period, duty};
}

Output recall(const Target& t) {
  std::scoped_lock g(state().mutex);
  return state().outputs[t.slot][t.index];
}

int get_timing(uint32_t h, double hz, uint16_t* prescaler, uint16_t* period, double* actual) {
  if (periph::slot_of(h) < 0) return PWM_ERR_PARAMETER;
  if (timer_clock(h) == 0) return PWM2_ERR_CHANNEL;
  std::optional<Timing> t = timing_for(timer_clock(h), hz);
  if (!t) return PWM2_ERR_FREQUENCY;
  if (prescaler) *prescaler = t->prescaler;
  if (period) *period = t->period;
  if (actual) *actual = t->actual_hz;
  return PWM_SUCCESS;
}

int init2(uint32_t h, uint8_t ch, double hz, double duty, uint8_t polarity, double* actual) {
  Target t = target(h, ch);
  if (t.code) return t.code;
  if (!valid_duty(duty)) return PWM2_ERR_DUTY;
  std::optional<Timing> tm = timing_for(timer_clock(h), hz);
  if (!tm) return PWM2_ERR_FREQUENCY;
  PWM_CONFIG c{};
  c.Prescaler[t.index] = tm->prescaler;
  c.Precision[t.index] = tm->period;
  c.Pulse[t.index] = pulse_for(tm->period, duty);
  c.Polarity[t.index] = polarity;
  c.ChannelMask = t.mask;
  int code = init(h, c);
  if (code != PWM_SUCCESS) return code;
  remember(t, tm->period, duty);
  if (actual) *actual = tm->actual_hz;
  return PWM_SUCCESS;
}

int set_duty(uint32_t h, uint8_t ch, double duty) {
  Target t = target(h, ch);
  if (t.code) return t.code;
  if (!valid_duty(duty)) return PWM2_ERR_DUTY;
  Output o = recall(t);
  if (o.period == 0) return PWM2_ERR_FREQUENCY;
  std::array<uint16_t, kOutputs> pulses{};
  pulses[t.index] = pulse_for(o.period, duty);
  int code = set_values(h, kCmdSetPulse, t.mask, pulses.data(), nullptr);
  if (code == PWM_SUCCESS) remember(t, o.period, duty);
  return code;
}

int set_frequency(uint32_t h, uint8_t ch, double hz, double* actual) {
  Target t = target(h, ch);
  if (t.code) return t.code;
  std::optional<Timing> tm = timing_for(timer_clock(h), hz);
  if (!tm) return PWM2_ERR_FREQUENCY;
  std::array<uint16_t, kOutputs> prescalers{}, periods{}, pulses{};
  prescalers[t.index] = tm->prescaler;
  periods[t.index] = tm->period;
  int code = set_values(h, kCmdSetFrequency, t.mask, prescalers.data(), periods.data());
  if (code != PWM_SUCCESS) return code;
  // The old pulse count would give another duty cycle on the new period.
  const double duty = recall(t).duty;
  remember(t, tm->period, duty);
  pulses[t.index] = pulse_for(tm->period, duty);
  code = set_values(h, kCmdSetPulse, t.mask, pulses.data(), nullptr);
  if (code == PWM_SUCCESS && actual) *actual = tm->actual_hz;
  return code;
}

}  // namespace
}  // namespace veltrix::pwm

using namespace veltrix;
using namespace veltrix::pwm;

VELTRIX_EXPORT(int, PWM2_GetTiming,
               (unsigned int h, double hz, unsigned short* prescaler, unsigned short* period,
                double* actual),
               PWM_ERR_PARAMETER, { return get_timing(h, hz, prescaler, period, actual); })

VELTRIX_EXPORT(int, PWM2_Init,
               (unsigned int h, unsigned char ch, double hz, double duty, unsigned char polarity,
                double* actual),
               PWM_ERR_REPLY, { return init2(h, ch, hz, duty, polarity, actual); })

VELTRIX_EXPORT(int, PWM2_Start, (unsigned int h, unsigned char ch, unsigned int run_time),
               PWM_ERR_REPLY, {
                 Target t = target(h, ch);
                 return t.code ? t.code : start(h, t.mask, run_time);
               })

VELTRIX_EXPORT(int, PWM2_SetDutyCycle, (unsigned int h, unsigned char ch, double duty),
               PWM_ERR_REPLY, { return set_duty(h, ch, duty); })

VELTRIX_EXPORT(int, PWM2_SetFrequency,
               (unsigned int h, unsigned char ch, double hz, double* actual), PWM_ERR_REPLY,
               { return set_frequency(h, ch, hz, actual); })

VELTRIX_EXPORT(int, PWM2_Stop, (unsigned int h, unsigned char ch), PWM_ERR_REPLY, {
  Target t = target(h, ch);
  return t.code ? t.code : stop(h, t.mask);
})
