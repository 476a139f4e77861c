"""Finding and loading libVELTRIX, and the C prototypes of every function the package calls.

The library is looked up, in order, at $VELTRIX_LIBRARY (a path, used by the build tree's
tests), beside an installation prefix the package was installed under, and by the dynamic
linker's own search.
"""

import ctypes
import ctypes.util
import os
import sys
import threading

from . import records as r

ENV_LIBRARY = "VELTRIX_LIBRARY"

_lock = threading.Lock()
_lib = None
_path = None


class LibraryNotFound(OSError):
    """libVELTRIX could not be loaded."""


def _candidates():
    env = os.environ.get(ENV_LIBRARY)
    if env:
        yield env
        return
    for prefix in {sys.prefix, sys.base_prefix, "/usr/local", "/usr"}:
        for libdir in ("lib", "lib64", "lib/x86_64-linux-gnu"):
            yield os.path.join(prefix, libdir, "libVELTRIX.so.1")
            yield os.path.join(prefix, libdir, "libVELTRIX.so")
    found = ctypes.util.find_library("VELTRIX")
    if found:
        yield found
    yield "libVELTRIX.so.1"


# Every prototype as (name, restype, argtypes). Declaring them is what keeps a Python int
# from being passed where the library expects a 64-bit handle or a pointer.
_U32 = ctypes.c_uint
_I32 = ctypes.c_int
_U8 = ctypes.c_ubyte
_I64 = ctypes.c_longlong
_CHARP = ctypes.c_char_p
_BYTES = ctypes.POINTER(ctypes.c_ubyte)
_LDFP = ctypes.POINTER(r.LDF_CODING)
_FRAMEP = ctypes.POINTER(r.LDF_LIN_FRAME)
_U16 = ctypes.c_ushort
_U16P = ctypes.POINTER(ctypes.c_ushort)
_I16P = ctypes.POINTER(ctypes.c_short)
_I32P = ctypes.POINTER(ctypes.c_int)
_F64 = ctypes.c_double
_F64P = ctypes.POINTER(ctypes.c_double)

PROTOTYPES = [
    # Registry, connection and adapter services.
    ("USB_ScanDevice", _I32, [ctypes.POINTER(_U32)]),
    ("USB_OpenDevice", _I32, [_U32]),
    ("USB_CloseDevice", _I32, [_U32]),
    ("USB_ResetDevice", _I32, [_U32]),
    ("USB_RetryConnect", _I32, [_U32]),
    ("DEV_GetDeviceInfo", _I32, [_U32, ctypes.POINTER(r.DEVICE_INFO), ctypes.c_char_p]),
    ("DEV_GetTimestamp", _I32, [_U32, _U8, ctypes.POINTER(_U32)]),
    ("DEV_ResetTimestamp", _I32, [_U32]),
    ("DEV_GetDllBuildTime", _I32, [ctypes.c_char_p]),
    ("GetTimestampOfDay", ctypes.c_uint64, []),
    # Classic CAN.
    ("CAN_GetCANSpeedArg", _I32, [_U32, ctypes.POINTER(r.CAN_CHANNEL_CONFIG), _I32]),
    ("CAN_Init", _I32, [_U32, _U8, ctypes.POINTER(r.CAN_CHANNEL_CONFIG)]),
    ("CAN_Filter_Init", _I32, [_U32, _U8, ctypes.POINTER(r.CAN_FILTER_RULE)]),
    ("CAN_GetStatus", _I32, [_U32, _U8, ctypes.POINTER(r.CAN_BUS_STATUS)]),
    ("CAN_SendMsg", _I32, [_U32, _U8, ctypes.POINTER(r.CAN_MSG), _U32]),
    ("CAN_SendMsgSynch", _I32, [_U32, _U8, ctypes.POINTER(r.CAN_MSG), _U32]),
    ("CAN_StartGetMsg", _I32, [_U32, _U8]),
    ("CAN_StopGetMsg", _I32, [_U32, _U8]),
    ("CAN_GetMsgWithSize", _I32, [_U32, _U8, ctypes.POINTER(r.CAN_MSG), _I32]),
    ("CAN_ClearMsg", _I32, [_U32, _U8]),
    ("CAN_Stop", _I32, [_U32, _U8]),
    # CAN FD.
    ("CANFD_GetCANSpeedArg", _I32, [_U32, ctypes.POINTER(r.CANFD_CHANNEL_CONFIG), _I32, _I32]),
    ("CANFD_Init", _I32, [_U32, _U8, ctypes.POINTER(r.CANFD_CHANNEL_CONFIG)]),
    ("CANFD_SetFilter", _I32, [_U32, _U8, ctypes.POINTER(r.CANFD_FILTER_RULE), _U8]),
    ("CANFD_GetBusError", _I32, [_U32, _U8, ctypes.POINTER(r.CANFD_BUS_ERROR)]),
    ("CANFD_SendMsg", _I32, [_U32, _U8, ctypes.POINTER(r.CANFD_MSG), _U32]),
    ("CANFD_StartGetMsg", _I32, [_U32, _U8]),
    ("CANFD_StopGetMsg", _I32, [_U32, _U8]),
    ("CANFD_GetMsg", _I32, [_U32, _U8, ctypes.POINTER(r.CANFD_MSG), _I32]),
    ("CANFD_ClearMsg", _I32, [_U32, _U8]),
    ("CANFD_Stop", _I32, [_U32, _U8]),
    # ISO-TP and UDS over CAN.
    ("CAN_UDS_Request", _I32, [_U32, _U8, ctypes.POINTER(r.CAN_UDS_ADDR), _BYTES, _I32]),
    ("CAN_UDS_ResponseWithSize", _I32,
     [_U32, _U8, ctypes.POINTER(r.CAN_UDS_ADDR), _BYTES, _U32, _U32]),
    # I2C and SPI masters.
    ("IIC_Init", _I32, [_I32, _U8, ctypes.POINTER(r.IIC_CONFIG)]),
    ("IIC_GetSlaveAddr", _I32, [_I32, _U8, ctypes.POINTER(ctypes.c_short)]),
    ("IIC_WriteBytes", _I32, [_I32, _U8, ctypes.c_ushort, _BYTES, _I32, _I32]),
    ("IIC_ReadBytes", _I32, [_I32, _U8, ctypes.c_ushort, _BYTES, _I32, _I32]),
    ("IIC_WriteReadBytes", _I32,
     [_I32, _U8, ctypes.c_ushort, _BYTES, _I32, _BYTES, _I32, _I32]),
    ("SPI_Init", _I32, [_I32, _U8, ctypes.POINTER(r.SPI_CONFIG)]),
    ("SPI_WriteBytes", _I32, [_I32, _U8, _BYTES, _I32]),
    ("SPI_ReadBytes", _I32, [_I32, _U8, _BYTES, _I32]),
    ("SPI_WriteReadBytes", _I32, [_I32, _U8, _BYTES, _I32, _BYTES, _I32, _I32]),
    # SMBus.
    ("SMBUS_Init", _I32, [_I32, _U8, _U32, _U8]),
    ("SMBUS_QuickCommand", _I32, [_I32, _U8, _U16, _U8]),
    ("SMBUS_WriteByte", _I32, [_I32, _U8, _U16, _U8, _U8]),
    ("SMBUS_ReadByte", _I32, [_I32, _U8, _U16, _BYTES, _U8]),
    ("SMBUS_WriteByteProtocol", _I32, [_I32, _U8, _U16, _U8, _U8, _U8]),
    ("SMBUS_WriteWordProtocol", _I32, [_I32, _U8, _U16, _U8, _U16, _U8]),
    ("SMBUS_ReadByteProtocol", _I32, [_I32, _U8, _U16, _U8, _BYTES, _U8]),
    ("SMBUS_ReadWordProtocol", _I32, [_I32, _U8, _U16, _U8, _U16P, _U8]),
    ("SMBUS_ProcessCall", _I32, [_I32, _U8, _U16, _U8, _U16, _U16P, _U8]),
    ("SMBUS_BlockWrite", _I32, [_I32, _U8, _U16, _U8, _BYTES, _I32, _U8]),
    ("SMBUS_BlockRead", _I32, [_I32, _U8, _U16, _U8, _BYTES, _I32P, _U8]),
    ("SMBUS_BlockProcessCall", _I32,
     [_I32, _U8, _U16, _U8, _BYTES, _I32, _BYTES, _I32P, _U8]),
    # SPI flash and slave.
    ("SPI_FlashInit", _I32, [_I32, _U8, _U32, ctypes.POINTER(r.SPI_FLASH_CONFIG)]),
    ("SPI_FlashReadID", _I32, [_I32, _U8, _BYTES]),
    ("SPI_FlashWrite", _I32, [_I32, _U8, _U32, _BYTES, _I32]),
    ("SPI_FlashRead", _I32, [_I32, _U8, _U32, _BYTES, _I32]),
    ("SPI_FlashReadFast", _I32, [_I32, _U8, _U32, _BYTES, _I32]),
    ("SPI_FlashEraseSector", _I32, [_I32, _U8, _U32, _I32, _I32]),
    ("SPI_FlashEraseChip", _I32, [_I32, _U8, _I32]),
    ("SPI_FlashErase", _I32, [_I32, _U8, _U32, _U8, _U8, _I32]),
    ("SPI_SlaveWriteBytes", _I32, [_I32, _U8, _BYTES, _I32, _I32]),
    ("SPI_SlaveWriteReadBytes", _I32, [_I32, _U8, _BYTES, _I32, _BYTES, _I32, _I32]),
    ("SPI_SlaveReadBytesFromBuffer", _I32, [_I32, _U8, _BYTES, _I32]),
    ("SPI_SlaveContinueRead", _I32, [_I32, _U8, ctypes.c_void_p]),
    ("SPI_SlaveGetBytes", _I32, [_I32, _U8, _BYTES, _I32]),
    ("SPI_SlaveContinueReadStop", _I32, [_I32, _U8]),
    ("SPI_SlaveContinueWrite", _I32, [_I32, _U8, _BYTES, _I32]),
    ("SPI_SlaveReadBytes", _I32, [_I32, _U8, _BYTES, _I32, _I32]),
    # UART.
    ("UART_Init", _I32, [_U32, _U8, ctypes.POINTER(r.UART_CONFIG)]),
    ("UART_WriteBytes", _I32, [_U32, _U8, _BYTES, _I32]),
    ("UART_WriteBytesAsync", _I32, [_U32, _U8, _BYTES, _I32]),
    ("UART_WriteBytesInterval", _I32, [_U32, _U8, _BYTES, _I32, _U8]),
    ("UART_ReadBytes", _I32, [_U32, _U8, _BYTES, _I32]),
    ("UART_ClearData", _I32, [_U32, _U8]),
    # GPIO.
    ("GPIO_SetInput", _I32, [_U32, _U32, _U8]),
    ("GPIO_SetOutput", _I32, [_U32, _U32, _U8]),
    ("GPIO_SetOpenDrain", _I32, [_U32, _U32, _U8]),
    ("GPIO_Write", _I32, [_U32, _U32, _U32]),
    ("GPIO_Read", _I32, [_U32, _U32, ctypes.POINTER(_U32)]),
    ("GPIO_SendPulses", _I32, [_U32, _U32, _U32, _U32, _U32]),
    # PWM outputs and capture.
    ("PWM_Init", _I32, [_U32, ctypes.POINTER(r.PWM_CONFIG)]),
    ("PWM_Start", _I32, [_U32, _U8, _U32]),
    ("PWM_Stop", _I32, [_U32, _U8]),
    ("PWM_GetChannelMask", _U8, [_U32, _U8]),
    ("PWM_GetMCUFrequency", _U32, [_U32]),
    ("PWM_CAP_Init", _I32, [_U32, _U8, _U8]),
    ("PWM_CAP_GetData", _I32, [_U32, _U8, ctypes.POINTER(r.PWM_CAP_DATA)]),
    ("PWM2_GetTiming", _I32, [_U32, _F64, _U16P, _U16P, _F64P]),
    ("PWM2_Init", _I32, [_U32, _U8, _F64, _F64, _U8, _F64P]),
    ("PWM2_Start", _I32, [_U32, _U8, _U32]),
    ("PWM2_SetDutyCycle", _I32, [_U32, _U8, _F64]),
    ("PWM2_SetFrequency", _I32, [_U32, _U8, _F64, _F64P]),
    ("PWM2_Stop", _I32, [_U32, _U8]),
    # ADC.
    ("ADC_Init", _I32, [_U32, _U8, _I32]),
    ("ADC_Read", _I32, [_U32, _I16P, _I32]),
    ("ADC_StartContinueRead", _I32, [_U32, _U8, _I32, _U32, ctypes.c_void_p]),
    ("ADC_StopContinueRead", _I32, [_U32]),
    ("ADC_WaitForThreadExit", _I32, [_U32]),
    ("ADC_GetData", _I32, [_U32, _I16P, _I32]),
    ("ADC_GetStreamState", _I32, [_U32, ctypes.POINTER(_U32)]),
    ("ADS1256_Init", _I32, [_U32, _U8, ctypes.POINTER(r.ADS1256_CONFIG)]),
    ("ADS1256_Start", _I32, [_U32, _U8]),
    ("ADS1256_Read", _I32, [_U32, _U8, _I32P]),
    ("ADS1256_Stop", _I32, [_U32, _U8]),
    # CAN and CAN FD schedules and relay.
    ("CAN_SetSchedule", _I32,
     [_U32, _U8, ctypes.POINTER(r.CAN_MSG), _BYTES, _BYTES, _U8]),
    ("CAN_StartSchedule", _I32, [_U32, _U8, _U8, _U8, _U8]),
    ("CAN_StopSchedule", _I32, [_U32, _U8]),
    ("CAN_SetRelay", _I32, [_U32, _U8]),
    ("CAN_SetRelayData", _I32,
     [_U32, ctypes.POINTER(r.CAN_RELAY_CONFIG), ctypes.POINTER(r.CAN_RELAY_RULE)]),
    ("CAN_GetRelayData", _I32,
     [_U32, ctypes.POINTER(r.CAN_RELAY_CONFIG), ctypes.POINTER(r.CAN_RELAY_RULE)]),
    ("CANFD_SetSchedule", _I32,
     [_U32, _U8, ctypes.POINTER(r.CANFD_MSG), _BYTES, _BYTES, _U8]),
    ("CANFD_StartSchedule", _I32, [_U32, _U8, _U8, _U8, _U8]),
    ("CANFD_StopSchedule", _I32, [_U32, _U8]),
    ("CANFD_SetRelay", _I32, [_U32, _U8]),
    # UDS over LIN.
    ("LIN_UDS_Request", _I32, [_I32, _U8, ctypes.POINTER(r.LIN_UDS_ADDR), _BYTES, _I32]),
    ("LIN_UDS_Response", _I32, [_I32, _U8, ctypes.POINTER(r.LIN_UDS_ADDR), _BYTES, _I32]),
    ("LIN_UDS_GetMsgFromUDSBuffer", _I32, [_I32, _U8, ctypes.POINTER(r.LIN_EX_MSG), _I32]),
    # LIN.
    ("LIN_EX_Init", _I32, [_I32, _U8, _U32, _U8]),
    ("LIN_EX_MasterSync", _I32,
     [_I32, _U8, ctypes.POINTER(r.LIN_EX_MSG), ctypes.POINTER(r.LIN_EX_MSG), _I32]),
    ("LIN_EX_MasterBreak", _I32, [_I32, _U8]),
    ("LIN_EX_MasterWrite", _I32, [_I32, _U8, _U8, _BYTES, _U8, _U8]),
    ("LIN_EX_MasterRead", _I32, [_I32, _U8, _U8, _BYTES]),
    ("LIN_EX_MasterStartSch", _I32, [_I32, _U8, ctypes.POINTER(r.LIN_EX_MSG), _I32]),
    ("LIN_EX_MasterStopSch", _I32, [_I32, _U8]),
    ("LIN_EX_MasterSetSchRunTimes", _I32, [_I32, _U8, _U32]),
    ("LIN_EX_MasterGetSch", _I32, [_I32, _U8, ctypes.POINTER(r.LIN_EX_MSG)]),
    ("LIN_EX_SlaveSetIDMode", _I32, [_I32, _U8, ctypes.POINTER(r.LIN_EX_MSG), _I32]),
    ("LIN_EX_SlaveGetIDMode", _I32, [_I32, _U8, ctypes.POINTER(r.LIN_EX_MSG)]),
    ("LIN_EX_SlaveGetData", _I32, [_I32, _U8, ctypes.POINTER(r.LIN_EX_MSG)]),
    ("LIN_EX_CtrlPowerOut", _I32, [_I32, _U8, _U8]),
    ("LIN_EX_GetVbatValue", _I32, [_I32, ctypes.POINTER(ctypes.c_ushort)]),
    # DBC databases.
    ("DBC_ParserFile", _I64, [_I32, _CHARP]),
    ("DBC_Release", _I32, [_I64]),
    ("DBC_GetMsgQuantity", _I32, [_I64]),
    ("DBC_GetMsgName", _I32, [_I64, _I32, ctypes.c_char_p]),
    ("DBC_GetMsgSignalQuantity", _I32, [_I64, _CHARP]),
    ("DBC_GetMsgSignalName", _I32, [_I64, _CHARP, _U32, ctypes.c_char_p]),
    ("DBC_GetMsgPublisher", _I32, [_I64, _CHARP, ctypes.c_char_p]),
    ("DBC_SetSignalValue", _I32, [_I64, _CHARP, _CHARP, ctypes.c_double]),
    ("DBC_GetSignalValue", _I32, [_I64, _CHARP, _CHARP, ctypes.POINTER(ctypes.c_double)]),
    ("DBC_GetSignalValueStr", _I32, [_I64, _CHARP, _CHARP, ctypes.c_char_p]),
    ("DBC_SyncCANMsgToValue", _I32, [_I64, ctypes.POINTER(r.CAN_MSG), _I32]),
    ("DBC_SyncValueToCANMsg", _I32, [_I64, _CHARP, ctypes.POINTER(r.CAN_MSG)]),
    # LDF descriptions.
    ("LDF_ParserFile", _LDFP, [_I32, _U8, _U8, _CHARP]),
    ("LDF_Release", _I32, [_LDFP]),
    ("LDF_GetProtocolVersion", _I32, [_LDFP]),
    ("LDF_GetLINSpeed", _I32, [_LDFP]),
    ("LDF_SetSignalValue", _I32, [_LDFP, _CHARP, _CHARP, ctypes.c_double]),
    ("LDF_GetSignalValue", _I32, [_LDFP, _CHARP, _CHARP, ctypes.POINTER(ctypes.c_double)]),
    ("LDF_GetSignalValueStr", _I32, [_LDFP, _CHARP, _CHARP, ctypes.c_char_p]),
    ("LDF_SetFrameRawValue", _I32, [_LDFP, _CHARP, _BYTES]),
    ("LDF_GetFrameRawValue", _I32, [_LDFP, _CHARP, _BYTES]),
    ("LDF_ExeFrameToBus", _I32, [_LDFP, _CHARP, _U8]),
    ("LDF_ExeSchToBus", _I32, [_LDFP, _CHARP, _U8]),
    ("LDF_SetSchToTable", _I32, [_LDFP, _CHARP, _U8]),
    ("LDF_GetRawMsg", _I32, [_LDFP, ctypes.POINTER(r.LIN_EX_MSG), _I32]),
]


def _declare(lib):
    for name, restype, argtypes in PROTOTYPES:
        fn = getattr(lib, name)
        fn.restype = restype
        fn.argtypes = argtypes


def load():
    """The loaded library (loaded and checked on first use); raises LibraryNotFound."""
    global _lib, _path
    with _lock:
        if _lib is not None:
            return _lib
        errors = []
        for candidate in _candidates():
            try:
                lib = ctypes.CDLL(candidate)
            except OSError as e:
                errors.append(f"{candidate}: {e}")
                continue
            try:
                _declare(lib)
            except AttributeError as e:
                errors.append(f"{candidate}: {e}")
                continue
            _lib, _path = lib, candidate
            return lib
        raise LibraryNotFound(
            "libVELTRIX could not be loaded (set $%s to its path): %s"
            % (ENV_LIBRARY, "; ".join(errors[-3:]) or "not found"))


def path():
    """The file the library was loaded from (after load())."""
    load()
    return _path


def has(name):
    """Whether the loaded library exports `name` (families built later add symbols)."""
    return hasattr(load(), name)
