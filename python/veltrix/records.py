"""The C records as ctypes structures, and the check of their layout against the headers.

Every record here mirrors a typedef of include/veltrix/*.h field for field. The headers
state each record's size and field offsets in static assertions; check_layouts() reads
those assertions and compares them with ctypes' idea of the same record, so a header that
changes without this file fails at import instead of corrupting memory later.
"""

import ctypes
import os
import re
import sys

_u8, _u16, _u32, _i32, _i64 = (ctypes.c_uint8, ctypes.c_uint16, ctypes.c_uint32, ctypes.c_int32,
                               ctypes.c_int64)
_cp = ctypes.c_char_p
_f32, _f64 = ctypes.c_float, ctypes.c_double


class DEVICE_INFO(ctypes.Structure):
    _fields_ = [("FirmwareName", ctypes.c_char * 32), ("BuildDate", ctypes.c_char * 32),
                ("HardwareVersion", _u32), ("FirmwareVersion", _u32), ("BootMarker", _u32 * 2),
                ("SerialNumber", _u32), ("Reserved", _u32)]


class USB_MSG(ctypes.Structure):
    _fields_ = [("cmd", _u32), ("len", _u32), ("data", ctypes.POINTER(_u8))]


class CAN_MSG(ctypes.Structure):
    _fields_ = [("ID", _u32), ("TimeStamp", _u32), ("FrameFlags", _u8), ("ExtFlag", _u8),
                ("DataLen", _u8), ("Data", _u8 * 8), ("TimeStampHigh", _u8)]


class CAN_CHANNEL_CONFIG(ctypes.Structure):
    _fields_ = [("Prescaler", _u32), ("SJW", _u8), ("Seg1", _u8), ("Seg2", _u8), ("Mode", _u8),
                ("AutoBusOffRecovery", _u8), ("NoAutoRetransmit", _u8), ("RxFifoLocked", _u8),
                ("TxFifoOrder", _u8)]


class CAN_FILTER_RULE(ctypes.Structure):
    _fields_ = [("Enable", _u8), ("FilterIndex", _u8), ("FilterMode", _u8), ("ExtFrame", _u8),
                ("ID", _u32), ("IDE", _u32), ("RTR", _u32), ("MaskID", _u32), ("MaskIDE", _u32),
                ("MaskRTR", _u32)]


class CAN_BUS_STATUS(ctypes.Structure):
    _fields_ = [("StatusWord", _u32), ("ErrorStatusWord", _u32), ("RxErrorCounter", _u8),
                ("TxErrorCounter", _u8), ("LastErrorCode", _u8), ("ErrorFlags", _u8)]


class CAN_TIMING_ENTRY(ctypes.Structure):
    _fields_ = [("SJW", _u8), ("Seg1", _u8), ("Seg2", _u8), ("Prescaler", _u16),
                ("BitRate", _u32)]


class CAN_BTR_ENTRY(ctypes.Structure):
    _fields_ = [("BaudRateKbps", _u32), ("Timing0", _u8), ("Timing1", _u8),
                ("Reserved", _u8 * 2)]


class CAN_TX_INFO(ctypes.Structure):
    _fields_ = [("QueuedCount", _u8), ("Reserved", _u8), ("SentCount", _u8), ("Aborted", _u8)]


class CANFD_MSG(ctypes.Structure):
    _fields_ = [("ID", _u32), ("DLC", _u8), ("Flags", _u8), ("Reserved", _u8),
                ("TimeStampHigh", _u8), ("TimeStamp", _u32), ("Data", _u8 * 64)]


class CANFD_CHANNEL_CONFIG(ctypes.Structure):
    _fields_ = [(n, _u8) for n in ("Mode", "IsoCrc", "AutoRetransmit", "Terminator",
                                   "NBT_Prescaler", "NBT_Seg1", "NBT_Seg2", "NBT_SJW",
                                   "DBT_Prescaler", "DBT_Seg1", "DBT_Seg2", "DBT_SJW")]
    _fields_ += [("Reserved", _u8 * 8)]


class CANFD_FILTER_RULE(ctypes.Structure):
    _fields_ = [("Enable", _u8), ("FilterIndex", _u8), ("Reserved", _u8 * 2), ("ID", _u32),
                ("Mask", _u32)]


class CANFD_BUS_ERROR(ctypes.Structure):
    _fields_ = [("TxErrorCounter", _u8), ("RxErrorCounter", _u8), ("Reserved", _u8 * 2)]


class CANFD_TX_INFO(ctypes.Structure):
    _fields_ = [("QueuedCount", _u8), ("Reserved", _u8), ("SentCount", _u8), ("Aborted", _u8)]


class CANFD_DIAGNOSTIC(ctypes.Structure):
    _fields_ = [("Data", _u8 * 8)]


class CAN_RELAY_CONFIG(ctypes.Structure):
    _fields_ = [("Words", _u32 * 11), ("RuleCount", _u32)]


class CAN_RELAY_RULE(ctypes.Structure):
    _fields_ = [("Data", _u8 * 168)]


class LIN_EX_MSG(ctypes.Structure):
    _fields_ = [("Timestamp", ctypes.c_uint), ("MsgType", _u8), ("CheckType", _u8),
                ("DataLen", _u8), ("Sync", _u8), ("PID", _u8), ("Data", _u8 * 8),
                ("Check", _u8), ("BreakBits", _u8), ("Reserved", _u8)]


class LIN_MSG(ctypes.Structure):
    _fields_ = [("ID", _u8), ("DataLen", _u8), ("Data", _u8 * 8), ("Check", _u8)]


class LIN_CONFIG(ctypes.Structure):
    _fields_ = [("BaudRate", ctypes.c_uint), ("Flags", _u8), ("Mode", _u8)]


class CAN_UDS_ADDR(ctypes.Structure):
    _fields_ = [("RequestID", _u32), ("ResponseID", _u32), ("IdFlags", _u8),
                ("ExtAddressing", _u8), ("AddressExtension", _u8), ("FrameLength", _u8)]


class UDS_FC(ctypes.Structure):
    _fields_ = [(n, _u8) for n in ("FlowStatusPci", "BlockSize", "STmin")]


class LIN_UDS_ADDR(ctypes.Structure):
    _fields_ = [(n, _u8) for n in ("ReqID", "ResID", "NAD", "CheckType", "STmin")]


class LDF_LOGICAL_VALUE(ctypes.Structure):
    _fields_ = [("Value", _i32), ("Text", _cp)]


class LDF_PHYSICAL_VALUE(ctypes.Structure):
    _fields_ = [("Offset", _f64), ("Scale", _f64), ("Min", _i64), ("Max", _i64), ("Unit", _cp)]


class LDF_SIGNAL_CODING(ctypes.Structure):
    _fields_ = [("Name", _cp), ("LogicalNum", _i32), ("PhysicalNum", _i32),
                ("LogicalValues", ctypes.POINTER(LDF_LOGICAL_VALUE)),
                ("PhysicalValues", ctypes.POINTER(LDF_PHYSICAL_VALUE))]


class LDF_SIGNAL_REPRESENTATION(ctypes.Structure):
    _fields_ = [("SignalName", _cp), ("CodingName", _cp)]


class LDF_LIN_SIGNAL(ctypes.Structure):
    _fields_ = [("Name", _cp), ("Size", _i32), ("IsArray", _i32), ("HasArrayInit", _i32),
                ("Reserved0", _i32), ("Value", _i64), ("ArrayValue", _u8 * 8),
                ("Publisher", _cp), ("SubscriberNum", _i32), ("Reserved1", _i32),
                ("Subscribers", _cp * 16), ("StartBit", _i32), ("Reserved2", _i32),
                ("SignalCoding", LDF_SIGNAL_CODING), ("Min", _f64), ("Max", _f64)]


class LDF_LIN_FRAME(ctypes.Structure):
    _fields_ = [("Name", _cp), ("ID", _i32), ("Reserved0", _i32), ("Publisher", _cp),
                ("Size", _i32), ("IsDiagnostic", _i32), ("SignalNum", _i32),
                ("Reserved1", _i32), ("Signals", ctypes.POINTER(LDF_LIN_SIGNAL))]


class LDF_LIN_SCH_FRAME(ctypes.Structure):
    _fields_ = [("Frame", LDF_LIN_FRAME), ("Delay", _f32), ("Reserved0", _i32)]


class LDF_LIN_SCH(ctypes.Structure):
    _fields_ = [("Name", _cp), ("FrameNum", _i32), ("Reserved0", _i32),
                ("Frames", ctypes.POINTER(LDF_LIN_SCH_FRAME))]


class LDF_LIN_NODE(ctypes.Structure):
    _fields_ = [("MasterName", _cp), ("TimeBase", _f32), ("Jitter", _f32), ("SlaveNum", _i32),
                ("Reserved0", _i32), ("SlaveNames", ctypes.POINTER(_cp))]


class LDF_NODE_ATTR(ctypes.Structure):
    _fields_ = [("Name", _cp), ("ProtocolVersion", _u16), ("ConfiguredNAD", _u8),
                ("InitialNAD", _u8), ("SupplierID", _i32), ("FunctionID", _i32),
                ("VariantID", _i32), ("ResponseError", _cp), ("FaultStateSignalNum", _i32),
                ("Reserved0", _i32), ("FaultStateSignals", _cp * 16), ("P2_min", _f32),
                ("ST_min", _f32), ("N_As_timeout", _f32), ("N_Cr_timeout", _f32),
                ("ConfigFrameNum", _i32), ("Reserved1", _i32), ("ConfigFrames", _cp * 64)]


class LDF_CODING(ctypes.Structure):
    _fields_ = [("ProtocolVersion", _i32), ("LanguageVersion", _i32), ("DevHandle", _i32),
                ("LINSpeed", _i32), ("LINIndex", _i32), ("MasterMode", _u8),
                ("Initialized", _u8), ("Reserved0", _u8 * 2),
                ("Nodes", ctypes.POINTER(LDF_LIN_NODE)), ("FrameNum", _i32), ("Reserved1", _i32),
                ("Frames", ctypes.POINTER(LDF_LIN_FRAME)), ("NodeAttrNum", _i32),
                ("Reserved2", _i32), ("NodeAttrs", ctypes.POINTER(LDF_NODE_ATTR)),
                ("SchNum", _i32), ("Reserved3", _i32), ("Schs", ctypes.POINTER(LDF_LIN_SCH))]


class VCI_INIT_CONFIG(ctypes.Structure):
    _fields_ = [("AccCode", _u32), ("AccMask", _u32), ("Reserved", _u32), ("Filter", _u8),
                ("Timing0", _u8), ("Timing1", _u8), ("Mode", _u8)]


class VCI_CAN_OBJ(ctypes.Structure):
    _fields_ = [("ID", _u32), ("TimeStamp", _u32), ("TimeFlag", _u8), ("SendType", _u8),
                ("RemoteFlag", _u8), ("ExternFlag", _u8), ("DataLen", _u8), ("Data", _u8 * 8),
                ("Reserved", _u8 * 3)]


class VCI_BOARD_INFO(ctypes.Structure):
    _fields_ = [("HardwareVersion", _u16), ("FirmwareVersion", _u16), ("DriverVersion", _u16),
                ("InterfaceVersion", _u16), ("IrqNumber", _u16), ("CanPortCount", _u8),
                ("SerialNumber", ctypes.c_char * 20), ("HardwareType", ctypes.c_char * 40),
                ("Reserved", _u16 * 4)]


class IIC_CONFIG(ctypes.Structure):
    _fields_ = [("ClockSpeedHz", _u32), ("OwnAddr", _u16), ("Master", _u8), ("AddrBits", _u8),
                ("Options", _u8 * 2), ("Reserved", _u8 * 2)]


class SPI_CONFIG(ctypes.Structure):
    _fields_ = [(n, _u8) for n in ("Mode", "Master", "CPOL", "CPHA", "LSBFirst", "SelPolarity")]
    _fields_ += [("Reserved", _u8 * 2), ("ClockSpeedHz", _u32)]


class SPI_FLASH_CONFIG(ctypes.Structure):
    _fields_ = [("Cmd", _u8 * 31), ("IDLength", _u8), ("Param64", _u8 * 8), ("Param32", _u8 * 4)]


class UART_CONFIG(ctypes.Structure):
    _fields_ = [("BaudRate", _u32), ("WordLength", _u8), ("StopBits", _u8), ("Parity", _u8),
                ("TEPolarity", _u8)]


class PWM_CONFIG(ctypes.Structure):
    _fields_ = [("Prescaler", _u16 * 8), ("Precision", _u16 * 8), ("Pulse", _u16 * 8),
                ("Phase", _u16 * 8), ("Polarity", _u8 * 8), ("ChannelMask", _u8),
                ("Reserved", _u8)]


class PWM_CAP_DATA(ctypes.Structure):
    _fields_ = [("PeriodTicks", _u32), ("HighTicks", _u32), ("ClockHz", _u32)]


class ADS1256_CONFIG(ctypes.Structure):
    _fields_ = [("SampleRate", _u16), ("Gain", _u8), ("BufferEn", _u8), ("Channels", _u32)]


# Families that land later add their records to this module and nothing else changes:
# every structure defined here whose name a header asserts on is checked.
RECORDS = {name: obj for name, obj in dict(globals()).items()
           if isinstance(obj, type) and issubclass(obj, ctypes.Structure)}

_ASSERT = re.compile(
    r"VELTRIX_STATIC_ASSERT\(\s*(sizeof|offsetof)\(\s*(\w+)\s*(?:,\s*(\w+)\s*)?\)\s*==\s*(\d+)")


class LayoutMismatch(ImportError):
    """A record here disagrees with the C header it mirrors."""


def header_assertions(include_dir):
    """(kind, record, field, value) for every layout assertion in the headers of include_dir
    (the directory that holds veltrix/)."""
    folder = os.path.join(include_dir, "veltrix")
    found = []
    for name in sorted(os.listdir(folder)):
        if not name.endswith(".h"):
            continue
        with open(os.path.join(folder, name), encoding="utf-8", errors="replace") as f:
            text = f.read()
        for kind, record, field, value in _ASSERT.findall(text):
            found.append((kind, record, field or None, int(value)))
    return found


def check_layouts(include_dir, records=None):
    """Compares every asserted size and offset with the ctypes records; raises LayoutMismatch
    listing every difference, and returns the number of assertions checked."""
    records = RECORDS if records is None else records
    wrong = []
    checked = 0
    for kind, record, field, value in header_assertions(include_dir):
        cls = records.get(record)
        if cls is None:
            continue  # a record the bindings do not use yet
        if kind == "sizeof":
            actual = ctypes.sizeof(cls)
        else:
            member = getattr(cls, field, None)
            if member is None:
                wrong.append(f"{record}.{field}: missing")
                continue
            actual = member.offset
        checked += 1
        if actual != value:
            what = f"{record}.{field} offset" if field else f"sizeof({record})"
            wrong.append(f"{what} is {actual}, the header says {value}")
    if wrong:
        raise LayoutMismatch("veltrix records disagree with the C headers in %s: %s"
                             % (include_dir, "; ".join(wrong)))
    return checked


def find_include_dir():
    """The include directory of the headers the library was built from, or None."""
    here = os.path.dirname(os.path.abspath(__file__))
    places = [os.environ.get("VELTRIX_INCLUDE_DIR"),
              os.path.join(here, os.pardir, os.pardir, "include"),  # the source tree
              os.path.join(sys.prefix, "include"), "/usr/local/include", "/usr/include"]
    for place in places:
        if place and os.path.isfile(os.path.join(place, "veltrix", "can.h")):
            return os.path.normpath(place)
    return None
