"""Arguments no adapter could carry raise ValueError (or TypeError) in Python, before
anything reaches the adapter, in every family; nothing is cut or wrapped silently."""

import pytest

import veltrix
from veltrix import pwm
from veltrix.adc import Adc, AdcStream
from veltrix.can import CanFrame
from veltrix.gpio import Gpio
from veltrix.lin_uds import LinUdsClient
from veltrix.schedule import CanSchedule, RelayRules, ScheduleTable
from veltrix.smbus import SmbusChannel
from veltrix.spi_flash import SpiFlash
from veltrix.spi_slave import SpiSlave
from veltrix.uart import UartChannel

from conftest import ADAPTER  # noqa: E402

FD_ADAPTER = 0x53000001

# (make: the object, or None for a plain call; use: what must be refused)
CASES = {
    "uart parity": (None, lambda _: UartChannel(ADAPTER, 0, parity="mark")),
    "uart stop bits": (None, lambda _: UartChannel(ADAPTER, 0, stop_bits=3)),
    "uart word length": (None, lambda _: UartChannel(ADAPTER, 0, word_length=7)),
    "uart channel": (None, lambda _: UartChannel(ADAPTER, 256)),
    "uart long write": (lambda: UartChannel(ADAPTER, 0), lambda u: u.write(bytes(65537))),
    "uart pacing": (lambda: UartChannel(ADAPTER, 0), lambda u: u.write(b"x", interval_ms=256)),
    "gpio pin": (lambda: Gpio(ADAPTER), lambda g: g.set_output(32)),
    "gpio level off mask": (lambda: Gpio(ADAPTER), lambda g: g.write([1], {2: True})),
    "gpio pull": (lambda: Gpio(ADAPTER), lambda g: g.set_input(0, pull="sideways")),
    "gpio pulse": (lambda: Gpio(ADAPTER), lambda g: g.pulses(0, -1, 10, 1)),
    "pwm duty": (None, lambda _: pwm.PwmOutput(FD_ADAPTER, 0, 1000, duty=100.5)),
    "pwm zero hz": (None, lambda _: pwm.PwmOutput(FD_ADAPTER, 0, 0)),
    "pwm nan hz": (None, lambda _: pwm.PwmOutput(FD_ADAPTER, 0, float("nan"))),
    "pwm output": (None, lambda _: pwm.PwmOutput(FD_ADAPTER, 8, 1000)),
    "pwm capture": (None, lambda _: pwm.PwmCapture(FD_ADAPTER, 4)),
    "adc no input": (None, lambda _: Adc(ADAPTER, [], 1000)),
    "adc input": (None, lambda _: Adc(ADAPTER, 8, 1000)),
    "adc rate": (None, lambda _: Adc(ADAPTER, 0, 0)),
    "adc empty frame": (None, lambda _: AdcStream(ADAPTER, 0, 1000, frame_size=0)),
    "adc long frame": (None, lambda _: AdcStream(ADAPTER, 0, 1000, frame_size=10241)),
    "smbus address": (lambda: SmbusChannel(ADAPTER, 0), lambda s: s.read_byte(0x80)),
    "smbus command": (lambda: SmbusChannel(ADAPTER, 0),
                      lambda s: s.write_byte_data(0x48, 0x100, 0)),
    "smbus word": (lambda: SmbusChannel(ADAPTER, 0),
                   lambda s: s.write_word_data(0x48, 0, 0x10000)),
    "flash command name": (None, lambda _: SpiFlash(ADAPTER, 0, commands={"turbo": 0x3B})),
    "flash command byte": (None, lambda _: SpiFlash(ADAPTER, 0, commands={"read": 0x100})),
    "flash id length": (None, lambda _: SpiFlash(ADAPTER, 0, id_length=0)),
    "flash parameters": (None, lambda _: SpiFlash(ADAPTER, 0, param64=b"\0")),
    "flash channel": (None, lambda _: SpiFlash(ADAPTER, 2)),
    "slave long offer": (lambda: SpiSlave(ADAPTER, 0), lambda s: s.exchange(bytes(20481), 0)),
    "slave read length": (lambda: SpiSlave(ADAPTER, 0), lambda s: s.exchange(b"", -1)),
    "lin nad": (None, lambda _: LinUdsClient(ADAPTER, 0, nad=256)),
    "lin request id": (None, lambda _: LinUdsClient(ADAPTER, 0, nad=2, request_id=0x40)),
    "lin checksum": (None, lambda _: LinUdsClient(ADAPTER, 0, nad=2, checksum="given")),
    "lin long request": (lambda: LinUdsClient(ADAPTER, 0, nad=2),
                         lambda c: c.send(bytes(4096))),
    "table parameters": (None, lambda _: ScheduleTable([(CanFrame(1), 1)], params=b"\0")),
    "table length": (None, lambda _: ScheduleTable([(CanFrame(1), 1)] * 256)),
    "table timing": (None, lambda _: ScheduleTable([(CanFrame(1), 1 << 32)])),
    "table frame": (None, lambda _: ScheduleTable([(b"\x01", 1)])),
    "schedule port": (None, lambda _: CanSchedule(ADAPTER, 2)),
    "relay words": (None, lambda _: RelayRules(tuple(range(10)))),
    "relay rule size": (None, lambda _: RelayRules(rules=[bytes(167)])),
    "relay rule count": (None, lambda _: RelayRules(rules=[bytes(168)] * 65)),
    "relay word size": (None, lambda _: RelayRules((1 << 32,) + (0,) * 10)),
}


@pytest.mark.parametrize("make, use", CASES.values(), ids=CASES.keys())
def test_refused_before_anything_is_sent(sim, make, use):
    veltrix.scan()
    subject = make() if make else None
    sim.clear(ADAPTER)
    sim.clear(FD_ADAPTER)
    try:
        with pytest.raises((ValueError, TypeError)):
            use(subject)
        assert sim.commands(ADAPTER) == [] and sim.commands(FD_ADAPTER) == []
    finally:
        if subject is not None:
            subject.close()
