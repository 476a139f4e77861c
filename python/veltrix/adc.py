"""Analog inputs: one-shot reads, the continuous stream, and an attached ADS1256.

Samples are the adapter's 16-bit codes, returned as unsigned ints. Inputs are numbered
0..7; with inputs (0, 2) the adapter delivers in0, in2, in0, in2, ... and the calls here
hand that back as one tuple per sampling instant: [(in0, in2), (in0, in2), ...]."""

import ctypes
import time

from . import _library, records
from .device import Adapter
from .errors import check, error
from ._closing import Closing, RunningUnit

INPUTS = 8
MAX_FRAME = 10240          # samples of one stream frame, all inputs together
FRAMES_PER_READ = 64       # frames taken from the library's queue per call, at most
ADS1256_READ_MAX = 1024    # the room every converter read gets
POLL_S = 0.002             # pause between looks at an empty queue


def input_mask(inputs):
    """The 8-bit mask of an input number or an iterable of them."""
    if isinstance(inputs, int):
        inputs = (inputs,)
    mask = 0
    for i in inputs:
        if not 0 <= i < INPUTS:
            raise ValueError(f"analog input {i} does not exist (0..{INPUTS - 1})")
        mask |= 1 << i
    if mask == 0:
        raise ValueError("at least one analog input is needed")
    return mask


def _sets(samples, width):
    """Interleaved samples as tuples of `width` (a partial last set is dropped)."""
    return [tuple(samples[i:i + width]) for i in range(0, len(samples) - width + 1, width)]


def _adapter(adapter):
    return Adapter(adapter.handle if isinstance(adapter, Adapter) else adapter)


class Adc(Closing):
    """The analog inputs `inputs` of an adapter sampled at `rate` samples per second per
    input. Failures raise AdcError with the ADC code."""

    def __init__(self, adapter, inputs, rate):
        self.mask = input_mask(inputs)
        self.inputs = tuple(i for i in range(INPUTS) if self.mask >> i & 1)
        if not 0 < rate <= 0x7FFFFFFF:
            raise ValueError(f"sample rate {rate} is out of range")
        self.rate = int(rate)
        self._lib = _library.load()
        self.adapter = _adapter(adapter)
        self.adapter.open()
        try:
            check("ADC", "ADC_Init", self._lib.ADC_Init(self.adapter.handle, self.mask,
                                                        self.rate))
        except BaseException:
            self.adapter.close()
            raise

    def read(self, count):
        """`count` sampling instants of every input, as a list of tuples."""
        if not 0 < count <= 0x7FFFFFFF // len(self.inputs):
            raise ValueError(f"count {count} is out of range")
        room = count * len(self.inputs)
        buf = (ctypes.c_short * room)()
        n = check("ADC", "ADC_Read", self._lib.ADC_Read(self.adapter.handle, buf, count))
        return _sets([v & 0xFFFF for v in buf[:min(n, room)]], len(self.inputs))

    def stream(self, frame_size=1024):
        """A stream of frames of `frame_size` samples (all inputs together); see AdcStream."""
        return AdcStream(self.adapter, self.inputs, self.rate, frame_size)

    def close(self):
        self.adapter.close()


class AdcStream(Closing):
    """A running stream. Iterate over it for frames (each a list of samples in the
    adapter's interleaved order, `frame_size` long), or call read() for what has arrived.
    Leaving the `with` block, or close(), stops the adapter and joins the library's reader
    thread. When the stream ends by itself (the adapter was unplugged, a transfer failed)
    the frames already received are still handed out, then AdcError -4 is raised, so a
    loop over a dead adapter ends instead of waiting."""

    def __init__(self, adapter, inputs, rate, frame_size=1024):
        if not 0 < frame_size <= MAX_FRAME:
            raise ValueError(f"frame size {frame_size} is not 1..{MAX_FRAME} samples")
        self.mask = input_mask(inputs)
        self.frame_size = frame_size
        self._lib = _library.load()
        self.adapter = _adapter(adapter)
        self._buf = (ctypes.c_short * (frame_size * FRAMES_PER_READ))()
        self._running = False
        self.adapter.open()
        try:
            check("ADC", "ADC_StartContinueRead", self._lib.ADC_StartContinueRead(
                self.adapter.handle, self.mask, int(rate), frame_size, None))
            self._running = True
        except BaseException:
            self.adapter.close()
            raise

    @property
    def dropped(self):
        """Frames the library's full queue dropped since the start."""
        n = ctypes.c_uint()
        self._lib.ADC_GetStreamState(self.adapter.handle, ctypes.byref(n))
        return n.value

    @property
    def running(self):
        """Whether the stream's transfer is still in flight."""
        return self._running and self._lib.ADC_GetStreamState(self.adapter.handle, None) == 1

    def _take(self):
        room = len(self._buf)
        n = check("ADC", "ADC_GetData", self._lib.ADC_GetData(self.adapter.handle, self._buf,
                                                             room))
        n = min(n, room)
        size = self.frame_size
        samples = [v & 0xFFFF for v in self._buf[:n]]
        return [samples[i:i + size] for i in range(0, n - size + 1, size)]

    def read(self, timeout=0.0):
        """Frames that have arrived, oldest first, waiting up to `timeout` seconds for the
        first. [] when none came; AdcError -4 once a stream that ended is drained."""
        deadline = time.monotonic() + max(0.0, timeout)
        while True:
            frames = self._take()
            if frames:
                return frames
            if not self.running:
                frames = self._take()  # what arrived before the end is not lost
                if frames:
                    return frames
                raise error("ADC", "ADC_GetStreamState", -4,
                            "the stream has ended (adapter unplugged, transfer failed, or "
                            "stopped)")
            if time.monotonic() >= deadline:
                return []
            time.sleep(POLL_S)

    def __iter__(self):
        while True:
            yield from self.read(timeout=1.0)

    def close(self):
        """Stops the stream and joins the reader thread; never raises."""
        if self._running:
            self._running = False
            self._lib.ADC_StopContinueRead(self.adapter.handle)
            self._lib.ADC_WaitForThreadExit(self.adapter.handle)
            self.adapter.close()


class Ads1256(RunningUnit):
    """ADS1256 converter `index` on the adapter. `sample_rate`, `gain` and `channels` are
    the converter's own codes, passed through; reads give the signed 24-bit results."""

    _FAMILY = "ADC"
    _STOP = "ADS1256_Stop"

    def __init__(self, adapter, index, sample_rate, gain=0, buffer=False, channels=0):
        self._lib = _library.load()
        self.adapter = _adapter(adapter)
        self.index = self._unit = index
        if not 0 <= index <= 255:
            raise ValueError(f"converter index {index} is not 0..255")
        config = records.ADS1256_CONFIG(SampleRate=sample_rate, Gain=gain, BufferEn=int(buffer),
                                        Channels=channels)
        self._running = False
        self.adapter.open()
        try:
            self._call("ADS1256_Init", ctypes.byref(config))
        except BaseException:
            self.adapter.close()
            raise

    def start(self):
        self._call("ADS1256_Start")
        self._running = True

    def read(self):
        """The results converted since the last read."""
        buf = (ctypes.c_int * ADS1256_READ_MAX)()
        n = self._call("ADS1256_Read", buf)
        return list(buf[:min(n, ADS1256_READ_MAX)])

