"""PWM outputs in hertz and percent, and the capture inputs that measure a signal's period
and high time.

An output's timer counts at the model's clock divided by a prescaler and wraps after a
period; the library picks the prescaler and period closest to the frequency asked for,
so the frequency reached (`actual_hz`) may differ a little from the request."""

import ctypes
import math
from dataclasses import dataclass

from . import _library, records
from .device import Adapter
from .errors import check, error
from ._closing import Closing, RunningUnit

OUTPUTS = 8
CAPTURES = 4
CAP_STOP, CAP_PERIOD = 0, 1


@dataclass(frozen=True)
class Timing:
    prescaler: int
    period: int
    actual_hz: float


@dataclass(frozen=True)
class Measurement:
    """One capture: `period_ticks` and `high_ticks` in counts of a `clock_hz` timer.
    A signal without edges has period_ticks 0 and frequency 0."""

    period_ticks: int
    high_ticks: int
    clock_hz: int

    @property
    def frequency(self):
        return self.clock_hz / self.period_ticks if self.period_ticks else 0.0

    @property
    def duty(self):
        """High time as a percentage of the period."""
        return 100.0 * self.high_ticks / self.period_ticks if self.period_ticks else 0.0


def _adapter(adapter):
    return Adapter(adapter.handle if isinstance(adapter, Adapter) else adapter)


def _frequency(value):
    value = float(value)
    if not math.isfinite(value) or value <= 0:
        raise ValueError(f"frequency {value} Hz is not a positive number")
    return value


def clock_hz(adapter):
    """The model's PWM timer clock in Hz (0 for a model without PWM outputs)."""
    return _library.load().PWM_GetMCUFrequency(_adapter(adapter).handle)


def timing(adapter, frequency_hz):
    """The prescaler and period the library would choose on this model, without talking to
    the adapter. Raises PwmError -5 for a model without outputs, -6 out of reach."""
    prescaler, period, actual = ctypes.c_ushort(), ctypes.c_ushort(), ctypes.c_double()
    check("PWM", "PWM2_GetTiming", _library.load().PWM2_GetTiming(
        _adapter(adapter).handle, _frequency(frequency_hz), ctypes.byref(prescaler),
        ctypes.byref(period), ctypes.byref(actual)))
    return Timing(prescaler.value, period.value, actual.value)


class PwmOutput(RunningUnit):
    """Output `channel` of an adapter, configured at `frequency_hz` and `duty` percent.
    Used as a context manager it runs inside the block and is stopped on the way out;
    otherwise call start() and stop(). `polarity` 1 inverts the output."""

    _FAMILY = "PWM"
    _STOP = "PWM2_Stop"

    def __init__(self, adapter, channel, frequency_hz, duty=50.0, polarity=0):
        if not 0 <= channel < OUTPUTS:
            raise ValueError(f"PWM output {channel} does not exist (0..{OUTPUTS - 1})")
        if polarity not in (0, 1):
            raise ValueError(f"polarity must be 0 or 1, not {polarity!r}")
        self._lib = _library.load()
        self.adapter = _adapter(adapter)
        self.channel = self._unit = channel
        self._running = False
        self.adapter.open()
        try:
            actual = ctypes.c_double()
            self._call("PWM2_Init", _frequency(frequency_hz), self._duty(duty), polarity,
                       ctypes.byref(actual))
            self.actual_hz = actual.value
        except BaseException:
            self.adapter.close()
            raise

    @staticmethod
    def _duty(duty):
        duty = float(duty)
        if not 0.0 <= duty <= 100.0:  # also refuses NaN
            raise ValueError(f"duty cycle {duty} % is not within 0..100")
        return duty

    @property
    def mask(self):
        """The output's bit in the model's channel mask."""
        return self._lib.PWM_GetChannelMask(self.adapter.handle, self.channel)

    def start(self, run_time_us=0):
        """Starts the output, for `run_time_us` microseconds or (0) until stopped."""
        if not 0 <= run_time_us <= 0xFFFFFFFF:
            raise ValueError(f"run time {run_time_us} us does not fit 32 bits")
        self._call("PWM2_Start", run_time_us)
        self._running = True

    def set_duty(self, duty):
        self._call("PWM2_SetDutyCycle", self._duty(duty))

    def set_frequency(self, frequency_hz):
        """A new frequency, keeping the duty cycle; returns the frequency reached."""
        actual = ctypes.c_double()
        self._call("PWM2_SetFrequency", _frequency(frequency_hz), ctypes.byref(actual))
        self.actual_hz = actual.value
        return self.actual_hz


class PwmCapture(Closing):
    """Capture input `index`, measuring while it is open (a context manager starts and
    stops it)."""

    def __init__(self, adapter, index):
        if not 0 <= index < CAPTURES:
            raise ValueError(f"capture input {index} does not exist (0..{CAPTURES - 1})")
        self._lib = _library.load()
        self.adapter = _adapter(adapter)
        self.index = index
        self._closed = False
        self.adapter.open()
        try:
            self._call("PWM_CAP_Init", CAP_PERIOD)
        except BaseException:
            self.adapter.close()
            raise

    def _call(self, name, *args):
        return check("PWM", name, getattr(self._lib, name)(self.adapter.handle, self.index,
                                                           *args))

    def measure(self):
        if self._closed:
            raise error("PWM", "PwmCapture", -1, "the capture input has been closed")
        raw = records.PWM_CAP_DATA()
        self._call("PWM_CAP_GetData", ctypes.byref(raw))
        return Measurement(raw.PeriodTicks, raw.HighTicks, raw.ClockHz)

    def close(self):
        if not self._closed:
            self._closed = True
            self._lib.PWM_CAP_Init(self.adapter.handle, self.index, CAP_STOP)
            self.adapter.close()
