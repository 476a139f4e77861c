"""Python bindings of libVELTRIX: adapters, CAN, CAN FD and LIN channels with their schedules,
UDS over CAN and LIN, I2C/SMBus, SPI (master, slave, flash), UART, GPIO, PWM and ADC, DBC
and LDF databases.

    import veltrix
    for adapter in veltrix.scan():
        with adapter:
            print(adapter.info())

The python-can interface is "veltrix" (see veltrix.interface).
"""

from . import records
from ._library import LibraryNotFound
from .device import Adapter, DeviceInfo, scan
from .errors import (AdcError, CanError, DbcError, DeviceError, GpioError, I2cError, LdfError,
                     LinError, LinUdsError, PwmError, SmbusError, SpiError, UartError, UdsError,
                     VeltrixError)

__version__ = "1.0.0"

# The records must match the headers the library was built from; where those headers
# can be found (a source tree, an installation prefix), a mismatch stops the import here.
INCLUDE_DIR = records.find_include_dir()
if INCLUDE_DIR is not None:
    records.check_layouts(INCLUDE_DIR)

__all__ = ["Adapter", "DeviceInfo", "scan", "VeltrixError", "DeviceError", "CanError",
           "LinError", "DbcError", "LdfError", "UdsError", "I2cError", "SpiError",
           "SmbusError", "UartError", "GpioError", "PwmError", "AdcError", "LinUdsError",
           "LibraryNotFound"]
