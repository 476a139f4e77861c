"""Finding adapters and holding them open.

An adapter is opened once per process however many objects use it (a python-can bus on
each port, a LIN channel, a database): the library has one open/closed state per adapter,
so the last user to leave is the one that closes it.
"""

import ctypes
import threading
from dataclasses import dataclass

from . import _library, records
from .errors import check_flag, error

MAX_ADAPTERS = 30  # the registry's capacity, and so the room a scan needs

_users_lock = threading.Lock()
_users = {}  # handle -> number of open Adapter objects


def scan():
    """Handles of every attached adapter, in registry order."""
    lib = _library.load()
    handles = (ctypes.c_uint * MAX_ADAPTERS)()
    n = lib.USB_ScanDevice(handles)
    if n < 0:
        raise error("USB", "USB_ScanDevice", n, f"USB error {n} while scanning")
    return [Adapter(handles[i]) for i in range(min(n, MAX_ADAPTERS))]


def parse_handle(text):
    """A handle from its usual spelling: an int, or hex text with or without 0x."""
    if isinstance(text, int):
        handle = text
    else:
        try:
            handle = int(str(text).strip(), 16)
        except ValueError:
            raise ValueError(f"not an adapter serial number: {text!r}") from None
    if not 0 <= handle <= 0xFFFFFFFF:
        raise ValueError(f"adapter serial number out of range: {text!r}")
    return handle


@dataclass(frozen=True)
class DeviceInfo:
    firmware_name: str
    build_date: str
    hardware_version: int
    firmware_version: int
    serial_number: int
    functions: str


class Adapter:
    """One adapter. Use it as a context manager (or call open()/close()) around the work."""

    def __init__(self, handle):
        self.handle = parse_handle(handle)
        self._open = False

    def __repr__(self):
        return f"<veltrix.Adapter {self.handle:08X}{' open' if self._open else ''}>"

    @property
    def model_code(self):
        """The top byte of the serial number, which tells the model."""
        return self.handle >> 24

    @property
    def is_open(self):
        return self._open

    def open(self):
        if self._open:
            return self
        lib = _library.load()
        with _users_lock:
            if _users.get(self.handle, 0) == 0:
                check_flag("USB_OpenDevice", lib.USB_OpenDevice(self.handle),
                           f"adapter {self.handle:08X} could not be opened")
            _users[self.handle] = _users.get(self.handle, 0) + 1
        self._open = True
        return self

    def close(self):
        """Closes the adapter when this was its last user. Never raises: an adapter that
        was unplugged meanwhile is simply forgotten."""
        if not self._open:
            return
        self._open = False
        lib = _library.load()
        with _users_lock:
            left = _users.get(self.handle, 1) - 1
            if left > 0:
                _users[self.handle] = left
                return
            _users.pop(self.handle, None)
            lib.USB_CloseDevice(self.handle)

    def __enter__(self):
        return self.open()

    def __exit__(self, *exc):
        self.close()

    def _require_open(self):
        if not self._open:
            raise error("USB", "Adapter", 0, f"adapter {self.handle:08X} is not open")

    def info(self):
        """The adapter's identity record and function string."""
        self._require_open()
        raw = records.DEVICE_INFO()
        text = ctypes.create_string_buffer(201)  # the header's maximum plus the NUL
        check_flag("DEV_GetDeviceInfo",
                   _library.load().DEV_GetDeviceInfo(self.handle, ctypes.byref(raw), text))
        return DeviceInfo(raw.FirmwareName.decode("latin-1"), raw.BuildDate.decode("latin-1"),
                          raw.HardwareVersion, raw.FirmwareVersion, raw.SerialNumber,
                          text.value.decode("latin-1"))

    def timestamp(self):
        """The adapter's time counter in units of 100 microseconds (32 bits, wrapping)."""
        self._require_open()
        value = ctypes.c_uint()
        check_flag("DEV_GetTimestamp",
                   _library.load().DEV_GetTimestamp(self.handle, 0, ctypes.byref(value)))
        return value.value

    def can(self, port, bitrate, **options):
        """A classic CAN port of this adapter, configured and receiving."""
        from .can import CanChannel
        return CanChannel(self, port, bitrate, **options)

    def canfd(self, port, bitrate, data_bitrate, **options):
        """A CAN FD port of this adapter, configured and receiving."""
        from .canfd import CanFdChannel
        return CanFdChannel(self, port, bitrate, data_bitrate, **options)

    def uds(self, port, request_id, response_id, **options):
        """A diagnostic conversation on a classic CAN port of this adapter."""
        from .uds import UdsClient
        return UdsClient(self, port, request_id, response_id, **options)

    def i2c(self, index, **options):
        """An I2C channel of this adapter as bus master."""
        from .serial_bus import I2cChannel
        return I2cChannel(self, index, **options)

    def spi(self, index, **options):
        """An SPI channel of this adapter as bus master."""
        from .serial_bus import SpiChannel
        return SpiChannel(self, index, **options)

    def lin(self, channel, baudrate=19200, master=True):
        """A LIN channel of this adapter, initialised as master or slave."""
        from .lin import LinChannel
        return LinChannel(self, channel, baudrate, master)

    def smbus(self, index, **options):
        """An I2C channel of this adapter as SMBus master."""
        from .smbus import SmbusChannel
        return SmbusChannel(self, index, **options)

    def spi_flash(self, index, **options):
        """A NOR flash on an SPI channel of this adapter."""
        from .spi_flash import SpiFlash
        return SpiFlash(self, index, **options)

    def spi_slave(self, index, **options):
        """An SPI channel of this adapter as slave."""
        from .spi_slave import SpiSlave
        return SpiSlave(self, index, **options)

    def uart(self, index, **options):
        """A UART channel of this adapter, configured."""
        from .uart import UartChannel
        return UartChannel(self, index, **options)

    def gpio(self):
        """The general-purpose pins of this adapter."""
        from .gpio import Gpio
        return Gpio(self)

    def pwm(self, channel, frequency_hz, **options):
        """A PWM output of this adapter, configured (a context manager runs it)."""
        from .pwm import PwmOutput
        return PwmOutput(self, channel, frequency_hz, **options)

    def adc(self, inputs, rate):
        """Analog inputs of this adapter, enabled at `rate` samples per second each."""
        from .adc import Adc
        return Adc(self, inputs, rate)

    def lin_uds(self, channel, nad, **options):
        """A diagnostic conversation with LIN node `nad` on a LIN channel of this adapter."""
        from .lin_uds import LinUdsClient
        return LinUdsClient(self, channel, nad, **options)

    def can_schedule(self, port):
        """The frame tables the adapter sends by itself on CAN port `port`."""
        from .schedule import CanSchedule
        return CanSchedule(self, port)
