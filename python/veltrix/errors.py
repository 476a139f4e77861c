"""Result codes of every family and the exceptions they become: the one place where a
negative number from the library turns into something a caller can read."""


class VeltrixError(Exception):
    """A library call failed. `code` is the family's result code, `meaning` its meaning,
    `function` the C function that returned it."""

    family = "VELTRIX"

    def __init__(self, function, code, meaning):
        super().__init__(f"{function}: {meaning} ({self.family} code {code})")
        self.function = function
        self.code = code
        self.meaning = meaning


class DeviceError(VeltrixError):
    family = "USB"


class CanError(VeltrixError):
    family = "CAN"


class LinError(VeltrixError):
    family = "LIN"


class UdsError(VeltrixError):
    family = "UDS"


class I2cError(VeltrixError):
    family = "I2C"


class SpiError(VeltrixError):
    family = "SPI"


class DbcError(VeltrixError):
    family = "DBC"


class LdfError(VeltrixError):
    family = "LDF"


class SmbusError(VeltrixError):
    family = "SMBUS"


class UartError(VeltrixError):
    family = "UART"


class GpioError(VeltrixError):
    family = "GPIO"


class PwmError(VeltrixError):
    family = "PWM"


class AdcError(VeltrixError):
    family = "ADC"


class LinUdsError(VeltrixError):
    family = "LIN_UDS"


# Code -> meaning, per family, in the words of the library's headers.
CAN_CODES = {
    -1: "a record pointer was NULL",
    -2: "the command could not be written, or the adapter is not in the registry",
    -4: "no valid reply from the adapter, a bit rate not in the table, or no receive thread",
}
LIN_CODES = {
    -2: "the command packet could not be sent",
    -4: "no reply, a reply of the wrong length or content, or no frame came back",
    -5: "the channel was never initialised",
    -7: "bad argument: handle not open, channel out of range, count out of range, "
        "or the channel's baud rate is too low for a master exchange",
    -8: "the list file cannot be opened",
    -9: "the list file's first line is not the header",
    -10: "out of memory",
}
UDS_CODES = {
    -98: "the CAN send failed, an argument was missing, or the adapter is a CAN FD model",
    -99: "a frame or batch could not be sent within 3 s",
    -101: "no flow control within 1 s, or no complete response in time",
    -103: "consecutive frame out of sequence",
    -105: "unknown frame type, or a single frame longer than the frame can hold",
    -107: "the receiver's flow control reported overflow",
    -108: "the response was longer than the room given for it",
}
# Negative codes are the library's; positive ones the adapter's bus status of a transfer.
I2C_CODES = {
    -2: "the command could not be sent, or the adapter is not in the registry",
    -3: "no reply or an unexpected one",
    -4: "no reply, a reply with another code, or of the wrong length",
    -5: "bad argument: channel out of range, or a length the adapter cannot carry",
    1: "nobody acknowledged the address",
    2: "the slave refused a data byte",
    3: "the packet error code did not match",
    4: "the transfer or its event did not happen in time",
}
SPI_CODES = {
    -2: "the command could not be sent, or the adapter is not in the registry",
    -4: "no reply, or a reply of the wrong length",
    -5: "bad argument: channel out of range, or a length the adapter cannot carry",
    -6: "the adapter's status was not 0 (the event did not come), or the flash stayed busy",
}
DBC_CODES = {
    -3: "a name or output argument is missing",
    -4: "the database handle is not live",
    -5: "no such message or signal, or index out of range",
    -6: "the multiplexed signal is not selected by the last received frame",
}
LDF_CODES = {
    -1: "the file cannot be opened or read",
    -3: "the adapter is not registered, or the channel is not initialised",
    -4: "null handle or argument, out of memory, or file too large",
    -5: "no frame or schedule table of that name, or index out of range",
    -6: "no frame or signal of that name",
    -7: "the value is not a number, or the response carried no data",
}
# SMBus transfers are I2C transfers; block reads report a missing reply as -3.
SMBUS_CODES = dict(I2C_CODES)
SMBUS_CODES[-3] = "no reply, or an unexpected one"
UART_CODES = {
    -1: "bad argument: adapter not found, or a length out of range; nothing was sent",
    -2: "the command could not be sent",
    -4: "no reply (a channel the adapter lacks is not answered), or a reply of the wrong "
        "length",
}
GPIO_CODES = {
    -1: "bad argument: adapter not found; nothing was sent",
    -2: "the command could not be sent",
    -4: "no reply, a failed reply, or a reply of the wrong length",
}
PWM_CODES = {
    -1: "bad argument: adapter not found; nothing was sent",
    -2: "the command could not be sent",
    -4: "no reply, a failed reply, or a reply of the wrong length",
    -5: "the adapter's model has no such output",
    -6: "the frequency is 0 or out of the timer's reach, or no frequency was set",
    -7: "the duty cycle is not within 0..100",
}
ADC_CODES = {
    -1: "bad argument: adapter not found, a count out of range, or a read before set-up",
    -2: "the command could not be sent",
    -4: "no reply, a reply of the wrong length, or the stream could not be started",
}
LIN_UDS_CODES = {
    -98: "the LIN exchange failed: channel not initialised as master, adapter gone, or a "
         "bad argument",
    -99: "no frame came back, a request frame was not echoed intact, or a poll brought a "
         "bad checksum or no data",
    -101: "no complete response within the time-out",
    -103: "consecutive frame out of sequence",
    -105: "unknown frame type, or a single frame longer than 6 bytes",
}
DEVICE_CODES = {
    0: "the adapter did not accept the request",
}

_FAMILIES = {
    "CAN": (CanError, CAN_CODES),
    "LIN": (LinError, LIN_CODES),
    "DBC": (DbcError, DBC_CODES),
    "UDS": (UdsError, UDS_CODES),
    "I2C": (I2cError, I2C_CODES),
    "SPI": (SpiError, SPI_CODES),
    "LDF": (LdfError, LDF_CODES),
    "USB": (DeviceError, DEVICE_CODES),
    "SMBUS": (SmbusError, SMBUS_CODES),
    "UART": (UartError, UART_CODES),
    "GPIO": (GpioError, GPIO_CODES),
    "PWM": (PwmError, PWM_CODES),
    "ADC": (AdcError, ADC_CODES),
    "LIN_UDS": (LinUdsError, LIN_UDS_CODES),
}


def error(family, function, code, meaning=None):
    """The exception for `code` of `family` raised by `function` (not raised here)."""
    cls, table = _FAMILIES[family]
    return cls(function, code, meaning or table.get(code, "unexpected result code"))


def check(family, function, result):
    """Returns a non-negative result unchanged; raises the family's exception otherwise."""
    if result < 0:
        raise error(family, function, result)
    return result


def check_status(family, function, result):
    """For transfers that answer 0, a negative library code, or the adapter's positive
    bus status: anything but 0 raises the family's exception."""
    if result != 0:
        raise error(family, function, result)
    return result


def check_flag(function, result, meaning=None):
    """For the calls that answer 1 for success and 0 for failure (USB_ and DEV_)."""
    if result != 1:
        raise error("USB", function, result, meaning)
    return result
