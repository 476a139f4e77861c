/* LDF (LIN description file) family: parser, handle interface, signal codec.
 *
 * A handle is a pointer to an LDF_CODING record returned by LDF_ParserFile. Every
 * string and array reachable from it belongs to the handle and stays valid until
 * LDF_Release; callers must not free or resize them. A handle is not locked: drive one
 * handle from one thread at a time. Loading files is serialised inside the library, so
 * two threads may load two files at once.
 *
 * Name and text outputs are caller buffers without a length argument: they must be large
 * enough for the longest name in the file (for LDF_GetSignalValueStr, the longest
 * logical-value text or unit plus 340 characters). Data outputs must hold 8 bytes.
 *
 * Result codes of the handle functions:
 *   -3  packing refused: the device of the most recent load was not registered
 *   -4  null handle, null pointer argument, or (LDF_Release) unknown handle
 *   -5  frame-name and schedule getters: no frame or schedule of that name, none at
 *       all, or index out of range
 *   -6  signal getters and setters, raw value functions: no frames, or no frame or
 *       signal of that name
 *   -7  LDF_SetSignalValue: the value is not a number
 */
#ifndef VELTRIX_LDF_H
#define VELTRIX_LDF_H

#include <stddef.h>

#include "veltrix/api.h"
#include "veltrix/lin.h"

VELTRIX_EXTERN_C_BEGIN

#define LDF_MAX_SUBSCRIBERS 16      /* further subscribers of a signal are dropped */
#define LDF_MAX_ARRAY_BYTES 8       /* further initial bytes of an array signal are dropped */
#define LDF_MAX_FAULT_SIGNALS 16    /* further fault-state signals of a node are dropped */
#define LDF_MAX_CONFIG_FRAMES 64    /* further configurable frames of a node are dropped */
#define LDF_MAX_SECTION_BYTES 65536 /* a longer section makes the load fail with -5 */

/* One logical value of an encoding type. */
typedef struct {
  int Value;
  char* Text; /* quotes removed; never NULL */
} LDF_LOGICAL_VALUE;

/* One physical range of an encoding type: physical = raw * Scale + Offset for
 * Min <= raw <= Max. */
typedef struct {
  double Offset;
  double Scale;
  long long Min;
  long long Max;
  char* Unit; /* quotes removed; never NULL */
} LDF_PHYSICAL_VALUE;

/* One signal encoding type. A signal holds a copy of this record; the copies share the
 * value arrays. A name of NULL means the signal has no encoding. */
typedef struct {
  char* Name;
  int LogicalNum;
  int PhysicalNum;
  LDF_LOGICAL_VALUE* LogicalValues;
  LDF_PHYSICAL_VALUE* PhysicalValues;
} LDF_SIGNAL_CODING;

/* One entry of the signal representation section. */
typedef struct {
  char* SignalName;
  char* CodingName;
} LDF_SIGNAL_REPRESENTATION;

/* One signal. Every frame carrying a signal holds its own copy, so values are per frame. */
typedef struct {
  char* Name;
  int Size;         /* bits */
  int IsArray;      /* 1: packed from ArrayValue (diagnostic signal with a brace list) */
  int HasArrayInit; /* 1: the initial value was a brace list */
  int Reserved0;
  long long Value; /* raw value; starts as the initial value (0 after a brace list) */
  unsigned char ArrayValue[LDF_MAX_ARRAY_BYTES]; /* brace-list initial bytes, in order */
  char* Publisher;                               /* NULL when the file names none */
  int SubscriberNum;
  int Reserved1;
  char* Subscribers[LDF_MAX_SUBSCRIBERS];
  int StartBit; /* bit offset in the frame (little-endian bit numbering) */
  int Reserved2;
  LDF_SIGNAL_CODING SignalCoding;
  double Min; /* 0 */
  double Max; /* all ones in the low Size bits (at most 64) */
} LDF_LIN_SIGNAL;

/* One frame: ordinary frames first, then diagnostic frames. */
typedef struct {
  char* Name;
  int ID;
  int Reserved0;
  char* Publisher;  /* NULL when the file names none */
  int Size;         /* data bytes, 0..8 (a larger size in the file is cut to 8) */
  int IsDiagnostic; /* 1 for frames of the diagnostic section */
  int SignalNum;
  int Reserved1;
  LDF_LIN_SIGNAL* Signals;
} LDF_LIN_FRAME;

/* One schedule entry: a copy of the named frame (sharing its signal array) and the delay.
 * An entry naming no known frame keeps the name and has every other field zero. */
typedef struct {
  LDF_LIN_FRAME Frame;
  float Delay; /* ms */
  int Reserved0;
} LDF_LIN_SCH_FRAME;

typedef struct {
  char* Name;
  int FrameNum;
  int Reserved0;
  LDF_LIN_SCH_FRAME* Frames;
} LDF_LIN_SCH;

/* The Nodes section. */
typedef struct {
  char* MasterName; /* NULL when the section names no master */
  float TimeBase;   /* ms */
  float Jitter;     /* ms */
  int SlaveNum;
  int Reserved0;
  char** SlaveNames;
} LDF_LIN_NODE;

/* One node of the node attributes section. Absent keys leave their field zero/NULL. */
typedef struct {
  char* Name;
  unsigned short ProtocolVersion; /* LIN_protocol x 100 */
  unsigned char ConfiguredNAD;
  unsigned char InitialNAD;
  int SupplierID;
  int FunctionID;
  int VariantID;
  char* ResponseError;
  int FaultStateSignalNum;
  int Reserved0;
  char* FaultStateSignals[LDF_MAX_FAULT_SIGNALS];
  float P2_min;       /* ms */
  float ST_min;       /* ms */
  float N_As_timeout; /* ms */
  float N_Cr_timeout; /* ms */
  int ConfigFrameNum;
  int Reserved1;
  char* ConfigFrames[LDF_MAX_CONFIG_FRAMES];
} LDF_NODE_ATTR;

/* The decoded file; LDF_ParserFile also fills DevHandle, LINIndex, MasterMode and
 * Initialized. */
typedef struct {
  int ProtocolVersion; /* x 100; 200 for J2602 */
  int LanguageVersion; /* x 100; 200 for J2602 */
  int DevHandle;
  int LINSpeed;              /* bits per second */
  int LINIndex;              /* LIN channel (one byte) */
  unsigned char MasterMode;  /* 1: the adapter plays the master node */
  unsigned char Initialized; /* 1 once the LIN channel is initialised */
  unsigned char Reserved0[2];
  LDF_LIN_NODE* Nodes; /* NULL when the Nodes section is empty */
  int FrameNum;
  int Reserved1;
  LDF_LIN_FRAME* Frames;
  int NodeAttrNum;
  int Reserved2;
  LDF_NODE_ATTR* NodeAttrs;
  int SchNum;
  int Reserved3;
  LDF_LIN_SCH* Schs;
} LDF_CODING;

/* Layout checks: a mistake here breaks the build, not a caller's program. */
VELTRIX_STATIC_ASSERT(sizeof(LDF_LOGICAL_VALUE) == 16, "LDF_LOGICAL_VALUE size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LOGICAL_VALUE, Value) == 0, "LDF_LOGICAL_VALUE.Value");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LOGICAL_VALUE, Text) == 8, "LDF_LOGICAL_VALUE.Text");
VELTRIX_STATIC_ASSERT(sizeof(LDF_PHYSICAL_VALUE) == 40, "LDF_PHYSICAL_VALUE size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_PHYSICAL_VALUE, Offset) == 0, "LDF_PHYSICAL_VALUE.Offset");
VELTRIX_STATIC_ASSERT(offsetof(LDF_PHYSICAL_VALUE, Scale) == 8, "LDF_PHYSICAL_VALUE.Scale");
VELTRIX_STATIC_ASSERT(offsetof(LDF_PHYSICAL_VALUE, Min) == 16, "LDF_PHYSICAL_VALUE.Min");
VELTRIX_STATIC_ASSERT(offsetof(LDF_PHYSICAL_VALUE, Max) == 24, "LDF_PHYSICAL_VALUE.Max");
VELTRIX_STATIC_ASSERT(offsetof(LDF_PHYSICAL_VALUE, Unit) == 32, "LDF_PHYSICAL_VALUE.Unit");
VELTRIX_STATIC_ASSERT(sizeof(LDF_SIGNAL_CODING) == 32, "LDF_SIGNAL_CODING size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_SIGNAL_CODING, Name) == 0, "LDF_SIGNAL_CODING.Name");
VELTRIX_STATIC_ASSERT(offsetof(LDF_SIGNAL_CODING, LogicalNum) == 8, "LDF_SIGNAL_CODING.LogicalNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_SIGNAL_CODING, PhysicalNum) == 12,
                      "LDF_SIGNAL_CODING.PhysicalNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_SIGNAL_CODING, LogicalValues) == 16,
                      "LDF_SIGNAL_CODING.LogicalValues");
VELTRIX_STATIC_ASSERT(offsetof(LDF_SIGNAL_CODING, PhysicalValues) == 24,
                      "LDF_SIGNAL_CODING.PhysicalValues");
VELTRIX_STATIC_ASSERT(sizeof(LDF_SIGNAL_REPRESENTATION) == 16, "LDF_SIGNAL_REPRESENTATION size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_SIGNAL_REPRESENTATION, SignalName) == 0,
                      "LDF_SIGNAL_REPRESENTATION.SignalName");
VELTRIX_STATIC_ASSERT(offsetof(LDF_SIGNAL_REPRESENTATION, CodingName) == 8,
                      "LDF_SIGNAL_REPRESENTATION.CodingName");
VELTRIX_STATIC_ASSERT(sizeof(LDF_LIN_SIGNAL) == 240, "LDF_LIN_SIGNAL size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, Name) == 0, "LDF_LIN_SIGNAL.Name");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, Size) == 8, "LDF_LIN_SIGNAL.Size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, IsArray) == 12, "LDF_LIN_SIGNAL.IsArray");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, HasArrayInit) == 16, "LDF_LIN_SIGNAL.HasArrayInit");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, Value) == 24, "LDF_LIN_SIGNAL.Value");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, ArrayValue) == 32, "LDF_LIN_SIGNAL.ArrayValue");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, Publisher) == 40, "LDF_LIN_SIGNAL.Publisher");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, SubscriberNum) == 48,
                      "LDF_LIN_SIGNAL.SubscriberNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, Subscribers) == 56, "LDF_LIN_SIGNAL.Subscribers");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, StartBit) == 184, "LDF_LIN_SIGNAL.StartBit");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, SignalCoding) == 192, "LDF_LIN_SIGNAL.SignalCoding");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, Min) == 224, "LDF_LIN_SIGNAL.Min");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SIGNAL, Max) == 232, "LDF_LIN_SIGNAL.Max");
VELTRIX_STATIC_ASSERT(sizeof(LDF_LIN_FRAME) == 48, "LDF_LIN_FRAME size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, Name) == 0, "LDF_LIN_FRAME.Name");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, ID) == 8, "LDF_LIN_FRAME.ID");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, Publisher) == 16, "LDF_LIN_FRAME.Publisher");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, Size) == 24, "LDF_LIN_FRAME.Size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, IsDiagnostic) == 28, "LDF_LIN_FRAME.IsDiagnostic");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, SignalNum) == 32, "LDF_LIN_FRAME.SignalNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_FRAME, Signals) == 40, "LDF_LIN_FRAME.Signals");
VELTRIX_STATIC_ASSERT(sizeof(LDF_LIN_SCH_FRAME) == 56, "LDF_LIN_SCH_FRAME size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SCH_FRAME, Frame) == 0, "LDF_LIN_SCH_FRAME.Frame");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SCH_FRAME, Delay) == 48, "LDF_LIN_SCH_FRAME.Delay");
VELTRIX_STATIC_ASSERT(sizeof(LDF_LIN_SCH) == 24, "LDF_LIN_SCH size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SCH, Name) == 0, "LDF_LIN_SCH.Name");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SCH, FrameNum) == 8, "LDF_LIN_SCH.FrameNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_SCH, Frames) == 16, "LDF_LIN_SCH.Frames");
VELTRIX_STATIC_ASSERT(sizeof(LDF_LIN_NODE) == 32, "LDF_LIN_NODE size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_NODE, MasterName) == 0, "LDF_LIN_NODE.MasterName");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_NODE, TimeBase) == 8, "LDF_LIN_NODE.TimeBase");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_NODE, Jitter) == 12, "LDF_LIN_NODE.Jitter");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_NODE, SlaveNum) == 16, "LDF_LIN_NODE.SlaveNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_LIN_NODE, SlaveNames) == 24, "LDF_LIN_NODE.SlaveNames");
VELTRIX_STATIC_ASSERT(sizeof(LDF_NODE_ATTR) == 704, "LDF_NODE_ATTR size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, Name) == 0, "LDF_NODE_ATTR.Name");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, ProtocolVersion) == 8,
                      "LDF_NODE_ATTR.ProtocolVersion");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, ConfiguredNAD) == 10, "LDF_NODE_ATTR.ConfiguredNAD");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, InitialNAD) == 11, "LDF_NODE_ATTR.InitialNAD");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, SupplierID) == 12, "LDF_NODE_ATTR.SupplierID");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, FunctionID) == 16, "LDF_NODE_ATTR.FunctionID");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, VariantID) == 20, "LDF_NODE_ATTR.VariantID");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, ResponseError) == 24, "LDF_NODE_ATTR.ResponseError");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, FaultStateSignalNum) == 32,
                      "LDF_NODE_ATTR.FaultStateSignalNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, FaultStateSignals) == 40,
                      "LDF_NODE_ATTR.FaultStateSignals");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, P2_min) == 168, "LDF_NODE_ATTR.P2_min");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, ST_min) == 172, "LDF_NODE_ATTR.ST_min");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, N_As_timeout) == 176, "LDF_NODE_ATTR.N_As_timeout");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, N_Cr_timeout) == 180, "LDF_NODE_ATTR.N_Cr_timeout");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, ConfigFrameNum) == 184,
                      "LDF_NODE_ATTR.ConfigFrameNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_NODE_ATTR, ConfigFrames) == 192, "LDF_NODE_ATTR.ConfigFrames");
VELTRIX_STATIC_ASSERT(sizeof(LDF_CODING) == 80, "LDF_CODING size");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, ProtocolVersion) == 0, "LDF_CODING.ProtocolVersion");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, LanguageVersion) == 4, "LDF_CODING.LanguageVersion");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, DevHandle) == 8, "LDF_CODING.DevHandle");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, LINSpeed) == 12, "LDF_CODING.LINSpeed");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, LINIndex) == 16, "LDF_CODING.LINIndex");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, MasterMode) == 20, "LDF_CODING.MasterMode");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, Initialized) == 21, "LDF_CODING.Initialized");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, Nodes) == 24, "LDF_CODING.Nodes");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, FrameNum) == 32, "LDF_CODING.FrameNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, Frames) == 40, "LDF_CODING.Frames");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, NodeAttrNum) == 48, "LDF_CODING.NodeAttrNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, NodeAttrs) == 56, "LDF_CODING.NodeAttrs");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, SchNum) == 64, "LDF_CODING.SchNum");
VELTRIX_STATIC_ASSERT(offsetof(LDF_CODING, Schs) == 72, "LDF_CODING.Schs");

/* ---- Loading ---------------------------------------------------------------------- */

/* Reads the LDF file at path into *coding for the adapter DevHandle (which must be
 * registered by a scan; 0xFF0000nn stands for registry position nn). The record is zeroed
 * first; its strings and arrays stay allocated for the life of the process (decoding
 * into the same record again allocates anew), or until LDF_Release(coding).
 * Returns 0, -1 file cannot be opened or read, -3 device not registered, -4 null
 * argument, out of memory or file larger than 16 MiB, -5 a section exceeds
 * LDF_MAX_SECTION_BYTES. On failure *coding is left unchanged. */
VELTRIX_API int LDF_Decode(int DevHandle, const char* path, LDF_CODING* coding);

/* The first step of LDF_Decode on its own: records whether DevHandle is registered (the
 * flag every later reader checks), then reads the file at path, strips its comments and
 * blanks and cuts its sections into the library's process-wide load state, replacing the
 * previous load. Nothing is returned to the caller but the result; LDF_Decode repeats
 * this step itself. Returns 0, -1 path NULL or the file cannot be opened or read, -3 device
 * not registered (the file is then not read), -4 file larger than 16 MiB or out of memory,
 * -5 a section exceeds LDF_MAX_SECTION_BYTES. */
VELTRIX_API int LDF_Init(int DevHandle, const char* path);

/* Releases nothing, on purpose: decoded data stays valid. Returns 0. */
VELTRIX_API int LDF_DecodeFree(LDF_CODING* coding);

/* Packs the signals of frame into its Size data bytes (data must hold 8 bytes): bits no
 * signal covers are ones when fill is non-zero, zeros otherwise. Returns the number of
 * bytes written, -3 when the device of the most recent load was not registered, -4 for a
 * null argument. */
VELTRIX_API int LDF_DataFrameToRaw(const LDF_LIN_FRAME* frame, unsigned char fill,
                                   unsigned char* data);

/* Unpacks frame->Size bytes of data into the frame's signals. Returns the number of bytes
 * read, -3 or -4 as LDF_DataFrameToRaw. */
VELTRIX_API int LDF_DataRawToFrame(LDF_LIN_FRAME* frame, const unsigned char* data);

/* ---- Handle ----------------------------------------------------------------------- */

/* Parses the file for the adapter and LIN channel, then sets the channel up with
 * LIN_EX_Init at the file's LIN_speed, isMaster passed as the mode byte (1: the adapter
 * is the master node, 0: it plays the slave nodes). Returns a new handle with
 * Initialized = 1 and MasterMode = (isMaster != 0), or NULL when the file cannot be read
 * or parsed, the device is not registered, memory runs out or LIN_EX_Init fails. */
VELTRIX_API LDF_CODING* LDF_ParserFile(int DevHandle, unsigned char LINIndex,
                                       unsigned char isMaster, const char* path);

/* Parses the file without an adapter, for the readers and the signal codec (log
 * decoding, tools without hardware). path may be NULL (gives NULL). Returns a new handle
 * with DevHandle, LINIndex, MasterMode and Initialized 0, or NULL when the file cannot be
 * read or parsed or memory runs out. LDF_ExeFrameToBus, LDF_ExeSchToBus and
 * LDF_SetSchToTable answer -3 for it, as no channel was set up. Free it with
 * LDF_Release. */
VELTRIX_API LDF_CODING* LDF_LoadFile(const char* path);

/* Frees a handle from LDF_ParserFile or LDF_LoadFile and everything it owns (for a record filled by
 * LDF_Decode, frees what the decodes allocated and zeroes the record). Returns 0, or -4
 * for NULL or a pointer that is not a live handle (so a second release is harmless). */
VELTRIX_API int LDF_Release(LDF_CODING* pLDF);

/* Header values; -4 for a null handle. */
VELTRIX_API int LDF_GetProtocolVersion(const LDF_CODING* pLDF);
VELTRIX_API int LDF_GetLINSpeed(const LDF_CODING* pLDF);
VELTRIX_API int LDF_GetFrameQuantity(const LDF_CODING* pLDF);
VELTRIX_API int LDF_GetSchQuantity(const LDF_CODING* pLDF);

/* Names. Returns 0 and copies the name; -4 null argument; -5 as in the table above.
 * A frame found by name is the first of that name in file order. */
VELTRIX_API int LDF_GetFrameName(const LDF_CODING* pLDF, int index, char* pFrameName);
VELTRIX_API int LDF_GetFramePublisher(const LDF_CODING* pLDF, const char* pFrameName,
                                      char* pPublisher); /* 0, output untouched, when none */
VELTRIX_API int LDF_GetMasterName(const LDF_CODING* pLDF, char* pMasterName); /* -5 none */
VELTRIX_API int LDF_GetSchName(const LDF_CODING* pLDF, int index, char* pSchName);

/* Counts; -4 null argument, -5 no frame / schedule of that name. */
VELTRIX_API int LDF_GetFrameSignalQuantity(const LDF_CODING* pLDF, const char* pFrameName);
VELTRIX_API int LDF_GetSchFrameQuantity(const LDF_CODING* pLDF, const char* pSchName);

/* The index-th signal of the first frame of that name that has more than index signals
 * (likewise the index-th entry of a schedule). 0, -4, -5. */
VELTRIX_API int LDF_GetFrameSignalName(const LDF_CODING* pLDF, const char* pFrameName, int index,
                                       char* pSignalName);
VELTRIX_API int LDF_GetSchFrameName(const LDF_CODING* pLDF, const char* pSchName, int index,
                                    char* pFrameName);

/* Signal values in physical form. Setting prefers an equal logical value, then the first
 * physical range that holds (value - offset) / scale rounded half away from zero, else
 * stores the value truncated. 0, -4, -6, -7 (set: NaN). */
VELTRIX_API int LDF_SetSignalValue(LDF_CODING* pLDF, const char* pFrameName,
                                   const char* pSignalName, double value);
VELTRIX_API int LDF_GetSignalValue(const LDF_CODING* pLDF, const char* pFrameName,
                                   const char* pSignalName, double* pValue);
/* The logical text, "%f %s" (physical value and unit) or the raw value in decimal. */
VELTRIX_API int LDF_GetSignalValueStr(const LDF_CODING* pLDF, const char* pFrameName,
                                      const char* pSignalName, char* pValueStr);

/* Whole frame data (Size bytes, least significant byte first); the get form fills
 * uncovered bits with ones. 0, -3, -4, -6. */
VELTRIX_API int LDF_SetFrameRawValue(LDF_CODING* pLDF, const char* pFrameName,
                                     const unsigned char* pRawData);
VELTRIX_API int LDF_GetFrameRawValue(const LDF_CODING* pLDF, const char* pFrameName,
                                     unsigned char* pRawData);

/* ---- Bus ------------------------------------------------------------------------ */

/* Every frame these functions exchange with the adapter is also appended to the LIN
 * message buffer of the handle's device and channel (see lin_uds.h), where LDF_GetRawMsg
 * reads it back. FillBitValue: bits of a frame that no signal covers are ones when
 * non-zero (the LIN convention, pass 1), zeros when 0. The checksum is enhanced for
 * protocol 2.x and J2602 files and identifiers below 0x3C, classic otherwise.
 *
 * Results: 0; -3 the handle's channel is not initialised, or packing refused; -4 null
 * handle; -5 no frame / schedule of that name (or a NULL name); otherwise the result of
 * the LIN_EX_ call, passed through: LIN_EX_MasterSync's 0 when no record came back or its
 * negative code, and LIN_EX_SlaveSetIDMode's or LIN_EX_MasterStartSch's code. */

/* One frame now.
 * Master mode: a frame the master publishes is written (one LIN_EX_MasterSync); any other
 *   frame is read and the response unpacked into its signals (-7 when the response has
 *   no data).
 * Slave mode: a frame the master publishes takes in what the slave channel captured
 *   (LIN_EX_SlaveGetData): every captured record with data is unpacked into each frame
 *   whose identifier matches it; the result is 0 even when the fetch fails. Any other
 *   frame is loaded as the slave's response (LIN_EX_SlaveSetIDMode, one record). */
VELTRIX_API int LDF_ExeFrameToBus(LDF_CODING* pLDF, const char* pFrameName,
                                  unsigned char FillBitValue);

/* A schedule table run once from the host, entry by entry as LDF_ExeFrameToBus, skipping
 * entries that name no frame. In master mode the host waits each entry's delay (whole
 * ms) after its exchange, a read without response data is no error, and the first
 * exchange that does not bring back one record ends the run with that result (0 for
 * none). In slave mode there are no waits and the first non-zero result ends the run. */
VELTRIX_API int LDF_ExeSchToBus(LDF_CODING* pLDF, const char* pSchName,
                                unsigned char FillBitValue);

/* A schedule table loaded into the adapter. Master mode: one record per entry whose frame
 * exists (a read for slave-published frames, a write packed now for the master's), with
 * the entry's delay in whole ms as the slot, passed to LIN_EX_MasterStartSch (which keeps
 * at most LIN_EX_MAX_SCH_MSGS); 0 without sending anything when no entry names a frame.
 * Slave mode: the entries are handled at once as by LDF_ExeFrameToBus. */
VELTRIX_API int LDF_SetSchToTable(LDF_CODING* pLDF, const char* pSchName,
                                  unsigned char FillBitValue);

/* Takes up to BufferSize records, oldest first, out of the message buffer of the handle's
 * device and channel (LIN_UDS_GetMsgFromUDSBuffer). Returns their number, -4 for a null
 * handle, or LIN_UDS_GetMsgFromUDSBuffer's error (NULL pLINMsg, unknown device). */
VELTRIX_API int LDF_GetRawMsg(LDF_CODING* pLDF, LIN_EX_MSG* pLINMsg, int BufferSize);

VELTRIX_EXTERN_C_END

#endif
