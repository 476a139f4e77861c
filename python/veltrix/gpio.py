"""General-purpose pins. Pins are numbered 0..31; every call takes one pin number or an
iterable of them, and acts on all of them in one adapter command."""

import ctypes

from . import _library
from .device import Adapter
from .errors import check
from ._closing import Closing

PINS = 32
PULLS = {None: 0, "up": 1, "down": 2}


def pin_mask(pins):
    """The 32-bit mask of a pin number or an iterable of pin numbers."""
    if isinstance(pins, int):
        pins = (pins,)
    mask = 0
    for p in pins:
        if not 0 <= p < PINS:
            raise ValueError(f"pin {p} does not exist (0..{PINS - 1})")
        mask |= 1 << p
    return mask


def _pull(pull):
    try:
        return PULLS[pull]
    except KeyError:
        raise ValueError(f"pull must be None, 'up' or 'down', not {pull!r}") from None


class Gpio(Closing):
    """The pins of an adapter, holding it open while this object lives. Failures raise
    GpioError with the GPIO code."""

    def __init__(self, adapter):
        self._lib = _library.load()
        self.adapter = Adapter(adapter.handle if isinstance(adapter, Adapter) else adapter)
        self.adapter.open()

    def _call(self, name, *args):
        return check("GPIO", name, getattr(self._lib, name)(self.adapter.handle, *args))

    def set_input(self, pins, pull=None):
        self._call("GPIO_SetInput", pin_mask(pins), _pull(pull))

    def set_output(self, pins, pull=None):
        """Push-pull outputs."""
        self._call("GPIO_SetOutput", pin_mask(pins), _pull(pull))

    def set_open_drain(self, pins, pull=None):
        """Open-drain outputs: writing 0 pulls the line low, 1 releases it."""
        self._call("GPIO_SetOpenDrain", pin_mask(pins), _pull(pull))

    def write(self, pins, levels):
        """Drives the pins: `levels` is one bool for all of them, or a dict pin -> bool."""
        mask = pin_mask(pins)
        if isinstance(levels, dict):
            value = pin_mask([p for p, on in levels.items() if on])
            stray = value & ~mask
            if stray:
                raise ValueError(f"levels name pins outside the mask 0x{mask:08X}")
        else:
            value = mask if levels else 0
        self._call("GPIO_Write", mask, value)

    def read(self, pins):
        """The levels of the pins: a bool for one pin number, else a dict pin -> bool."""
        mask = pin_mask(pins)
        value = ctypes.c_uint()
        self._call("GPIO_Read", mask, ctypes.byref(value))
        if isinstance(pins, int):
            return bool(value.value >> pins & 1)
        return {p: bool(value.value >> p & 1) for p in range(PINS) if mask >> p & 1}

    def pulses(self, pins, width_us, period_us, count):
        """Drives `count` pulses of `width_us` high time every `period_us` on the output
        pins and returns when they are done (the adapter makes a period not longer than
        the width one microsecond longer)."""
        for name, v in (("width_us", width_us), ("period_us", period_us), ("count", count)):
            if not 0 <= v <= 0xFFFFFFFF:
                raise ValueError(f"{name} {v} does not fit 32 bits")
        self._call("GPIO_SendPulses", pin_mask(pins), width_us, period_us, count)

    def close(self):
        self.adapter.close()
