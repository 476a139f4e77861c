"""UART, GPIO, PWM and ADC against the virtual adapter's parts, asserting what reached the
adapter and what came back."""

import struct
import threading

import pytest

import veltrix
from veltrix import pwm
from veltrix.adc import Adc, AdcStream, Ads1256
from veltrix.gpio import Gpio
from veltrix.uart import UartChannel

from conftest import ADAPTER, UNPLUG  # noqa: E402

FD_ADAPTER = 0x53000001  # has PWM outputs (timer clock 220 MHz, output n on mask bit n+1)
UART_INIT, UART_WRITE, UART_ASYNC, UART_PACED = 0xA00, 0xA01, 0xA02, 0xA05
GPIO_OUTPUT, GPIO_INPUT, GPIO_WRITE, GPIO_PULSES = 0x601, 0x600, 0x603, 0x806
PWM_INIT, PWM_START, PWM_STOP, PWM_PULSE = 0x800, 0x801, 0x802, 0x803
ADC_INIT, ADC_READ, ADC_STREAM, ADS_INIT = 0x500, 0x501, 0x502, 0x219


@pytest.fixture
def fresh(sim):
    veltrix.scan()
    sim.clear(ADAPTER)
    sim.clear(FD_ADAPTER)
    return sim


@pytest.fixture
def dead(sim):
    """UNPLUG, pulled out after the test opened it; plugged back in afterwards."""
    veltrix.scan()
    yield lambda: sim.unplug(UNPLUG)
    sim.replug(UNPLUG)
    veltrix.scan()


def finishes(fn, seconds=30):
    """Runs fn in a thread; returns what it raised (or None), failing if it hangs."""
    raised = []

    def run():
        try:
            fn()
        except Exception as e:  # noqa: BLE001 - the test inspects it
            raised.append(e)

    t = threading.Thread(target=run)
    t.start()
    t.join(seconds)
    assert not t.is_alive(), "the call hung on an unplugged adapter"
    return raised[0] if raised else None


# ---- UART --------------------------------------------------------------------------

@pytest.mark.parametrize("kwargs, config", [
    (dict(), struct.pack("<IBBBB", 115200, 8, 0, 0, 0)),
    (dict(baudrate=9600, word_length=9, stop_bits=2, parity="even", tx_enable="low"),
     struct.pack("<IBBBB", 9600, 9, 2, 2, 2)),
    (dict(baudrate=19200, parity="odd", tx_enable="high"), struct.pack("<IBBBB", 19200, 8, 0, 1, 1)),
], ids=["defaults", "9600-even-2-stop-low", "19200-odd-high"])
def test_uart_settings_go_out_as_the_adapters_record(fresh, kwargs, config):
    with UartChannel(ADAPTER, 2, **kwargs):
        pass
    assert fresh.payloads(ADAPTER, UART_INIT) == [b"\x02" + config]


@pytest.mark.parametrize("kwargs, code, payload", [
    (dict(), UART_WRITE, b"\x01ping\n"),
    (dict(wait=False), UART_ASYNC, b"\x01ping\n"),
    (dict(interval_ms=7), UART_PACED, b"\x01\x07ping\n"),
])
def test_uart_bytes_come_back_over_the_loopback_wire(fresh, kwargs, code, payload):
    fresh.uart_loopback(ADAPTER, 1)
    try:
        with UartChannel(ADAPTER, 1) as uart:
            data = bytearray(b"ping\n")
            uart.write(data, **kwargs)
            assert uart.read(timeout_ms=100) == b"ping\n"
            assert uart.read() == b""
            uart.write(b"lost")
            uart.clear()
            assert uart.read() == b""
    finally:
        fresh.uart_loopback(ADAPTER, 1, False)
    assert fresh.payloads(ADAPTER, code)[0] == payload and data == b"ping\n"


def test_a_uart_read_returns_at_most_what_one_reply_carries(fresh):
    fresh.uart_loopback(ADAPTER, 0)
    try:
        with UartChannel(ADAPTER, 0) as uart:
            block = bytes(range(256)) * 20  # 5120 bytes: more than one read's 4096
            uart.write(block)
            assert uart.read() + uart.read() == block
    finally:
        fresh.uart_loopback(ADAPTER, 0, False)


def test_a_uart_channel_the_adapter_lacks_is_a_reply_error(fresh):
    with pytest.raises(veltrix.UartError) as info:
        UartChannel(ADAPTER, 9)
    assert info.value.code == -4 and info.value.function == "UART_Init"


# ---- GPIO --------------------------------------------------------------------------

def test_gpio_outputs_read_back_and_go_out_as_masks(fresh):
    with Gpio(ADAPTER) as gpio:
        gpio.set_output([1, 3], pull="up")
        gpio.write([1, 3], {1: True, 3: False})
        assert gpio.read([1, 3]) == {1: True, 3: False}
        gpio.write(3, True)
        assert gpio.read(3) is True
    assert fresh.payloads(ADAPTER, GPIO_OUTPUT) == [struct.pack(">IB", 0x0A, 1)]
    assert fresh.payloads(ADAPTER, GPIO_WRITE) == [struct.pack(">II", 0x0A, 0x02),
                                                   struct.pack(">II", 0x08, 0x08)]


@pytest.mark.parametrize("pull, level, code", [("up", True, 1), ("down", False, 2),
                                               (None, False, 0)])
def test_gpio_inputs_follow_their_pull(fresh, pull, level, code):
    with Gpio(ADAPTER) as gpio:
        gpio.set_input(31, pull=pull)
        assert gpio.read(31) is level
    assert fresh.payloads(ADAPTER, GPIO_INPUT) == [struct.pack(">IB", 1 << 31, code)]


@pytest.mark.parametrize("width, period, sent_period", [(10, 100, 100), (10, 5, 11),
                                                        (10, 10, 11)])
def test_gpio_pulse_trains_go_out_with_a_period_longer_than_the_pulse(fresh, width, period,
                                                                      sent_period):
    with Gpio(ADAPTER) as gpio:
        gpio.set_output(4)
        gpio.pulses(4, width, period, 3)
    assert fresh.payloads(ADAPTER, GPIO_PULSES) == [struct.pack(">IIII", 0x10, width,
                                                                sent_period, 3)]


# ---- PWM ---------------------------------------------------------------------------

def test_pwm_timing_is_the_closest_prescaler_and_period():
    # 220 MHz / 1 kHz = 220000 counts: the smallest prescaler whose period fits 16 bits.
    assert pwm.timing(FD_ADAPTER, 1000) == pwm.Timing(4, 55000, 1000.0)
    assert pwm.clock_hz(FD_ADAPTER) == 220000000 and pwm.clock_hz(ADAPTER) == 0


def test_a_pwm_output_is_measured_by_its_capture_input(fresh):
    with pwm.PwmCapture(FD_ADAPTER, 1) as cap:
        with pwm.PwmOutput(FD_ADAPTER, 0, 1000, duty=25) as out:
            assert out.mask == 0x02 and out.actual_hz == 1000.0
            m = cap.measure()
            assert (m.period_ticks, m.high_ticks, m.clock_hz) == (220000, 55000, 220000000)
            assert (m.frequency, m.duty) == (1000.0, 25.0)
            out.set_duty(50)
            assert cap.measure().high_ticks == 110000
            assert out.set_frequency(2000) == 2000.0
            assert (cap.measure().frequency, cap.measure().duty) == (2000.0, 50.0)
        assert cap.measure().period_ticks == 0  # stopped on leaving the block
    config = fresh.payloads(FD_ADAPTER, PWM_INIT)[0]
    # Output 0 of this model is mask bit 1: prescaler 4, period 55000, pulse 13750.
    assert struct.unpack_from("<HHH", config, 2)[0] == 4
    assert (struct.unpack_from("<H", config, 18)[0], struct.unpack_from("<H", config, 34)[0],
            config[72]) == (55000, 13750, 0x02)
    assert fresh.payloads(FD_ADAPTER, PWM_START) == [b"\x02\x00\x00\x00\x00"]
    assert fresh.payloads(FD_ADAPTER, PWM_PULSE)[0] == b"\x02" + struct.pack(">8H", 0, 27500,
                                                                            0, 0, 0, 0, 0, 0)
    assert fresh.payloads(FD_ADAPTER, PWM_STOP) == [b"\x02"]


@pytest.mark.parametrize("call, code", [
    (lambda: pwm.PwmOutput(ADAPTER, 0, 1000), -5),   # this model has no PWM outputs
    (lambda: pwm.timing(ADAPTER, 1000), -5),
    (lambda: pwm.timing(FD_ADAPTER, 0.01), -6),       # below what 16-bit timers reach
    (lambda: pwm.PwmOutput(FD_ADAPTER, 7, 1000), -5),  # bit 8 does not exist
])
def test_pwm_refusals_raise_with_their_code(fresh, call, code):
    with pytest.raises(veltrix.PwmError) as info:
        call()
    assert info.value.code == code


# ---- ADC ---------------------------------------------------------------------------

def ramp(start, count, inputs=(0, 2)):
    """The virtual inputs' default ramps: input i counts up from i x 0x1000."""
    return [tuple(i * 0x1000 + k for i in inputs) for k in range(start, start + count)]


def test_an_adc_read_gives_one_tuple_per_instant(fresh):
    with Adc(ADAPTER, (0, 2), 1000) as adc:
        assert adc.read(3) == ramp(0, 3)
        assert adc.read(2) == ramp(3, 2)
    assert fresh.payloads(ADAPTER, ADC_INIT) == [b"\x05" + struct.pack(">I", 1000)]
    assert fresh.payloads(ADAPTER, ADC_READ) == [struct.pack(">I", 3), struct.pack(">I", 2)]


def test_an_adc_stream_delivers_whole_frames_without_gaps_and_stops(fresh):
    lib = veltrix._library.load()
    with Adc(ADAPTER, (0, 2), 4000) as adc:
        with adc.stream(frame_size=64) as stream:
            frames = []
            for frame in stream:
                frames.append(frame)
                if len(frames) == 5:
                    break
            assert stream.dropped == 0
        assert not stream.running
        # No reader thread is left behind.
        assert lib.ADC_WaitForThreadExit(ADAPTER) == 0
    assert all(len(f) == 64 for f in frames)
    samples = [s for f in frames for s in f]
    assert [tuple(samples[i:i + 2]) for i in range(0, len(samples), 2)] == ramp(0, 160)
    assert fresh.payloads(ADAPTER, ADC_STREAM) == [b"\x05" + struct.pack(">II", 4000, 64)]


def test_a_read_of_more_than_the_adapter_answers_is_a_reply_error(fresh):
    with Adc(ADAPTER, (0, 2), 1000000) as adc:
        with pytest.raises(veltrix.AdcError) as info:
            adc.read(300000)  # 1.2 MB: the adapter leaves it unanswered
    assert info.value.code == -4 and info.value.function == "ADC_Read"


def test_ads1256_settings_go_out_big_endian(fresh):
    with Ads1256(ADAPTER, 1, sample_rate=0x00F0, gain=3, buffer=True,
                 channels=0x01020304) as ads:
        assert ads.read() == []
    assert fresh.payloads(ADAPTER, ADS_INIT) == [bytes.fromhex("0100f0030101020304")]


# ---- An adapter that goes away -----------------------------------------------------

def test_an_adc_stream_on_an_unplugged_adapter_ends_with_an_error(dead):
    received = []
    stream = AdcStream(UNPLUG, (0, 1), 2000, frame_size=32)

    def consume():
        with stream:
            for frame in stream:
                received.append(frame)
                if len(received) == 2:
                    dead()

    raised = finishes(consume)
    assert isinstance(raised, veltrix.AdcError) and raised.code == -4
    assert len(received) >= 2 and not stream.running
    assert veltrix._library.load().ADC_WaitForThreadExit(UNPLUG) == 0  # no reader left


@pytest.mark.parametrize("family, use", [
    (veltrix.GpioError, lambda: Gpio(UNPLUG).read(0)),
    (veltrix.UartError, lambda: UartChannel(UNPLUG, 0).write(b"x")),
    (veltrix.AdcError, lambda: Adc(UNPLUG, 0, 1000).read(1)),
])
def test_calls_on_an_unplugged_adapter_raise_instead_of_hanging(dead, family, use):
    holder = veltrix.Adapter(UNPLUG).open()  # open before the unplug, as a user's would be
    dead()
    try:
        raised = finishes(use)
    finally:
        holder.close()
    assert isinstance(raised, family) and raised.code == -2
