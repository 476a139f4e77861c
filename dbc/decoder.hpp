// DBC_Decoder: reads a CAN database file into messages, signals, comments, value tables
// and attributes, and holds the signal codec the exported DBC functions rest on.
//
// The reader is line and token based: it understands the keywords BO_, SG_, CM_, VAL_,
// SIG_VALTYPE_, BA_DEF_, BA_DEF_DEF_ and BA_ and silently skips everything else. A file is
// read in two passes (definitions, then attribute assignments) followed by a post-pass
// that derives cycle time and frame format from the attributes; then the lookup indexes
// are built once.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "dbc/codec_plan.hpp"
#include "dbc/model.hpp"
#include "dbc/name_cache.hpp"
#include "dbc/name_index.hpp"

namespace veltrix::dbc {

enum class ParseStatus {
  Ok,
  CannotOpen,    // the file could not be read
  MissingToken,  // a line passed its keyword's token count but lacks a token it needs
};

// Where a parse stopped, for messages to the user.
struct ParseFault {
  ParseStatus status = ParseStatus::Ok;
  size_t line = 0;  // 1-based line number of the offending line (0: none)
  std::string keyword;
};

// Thrown by the constructor for a file the reader refuses (ParseStatus::MissingToken).
class DbcFormatError : public std::out_of_range {
 public:
  explicit DbcFormatError(const ParseFault& fault);
  ParseFault fault;
};

class DBC_Decoder {
 public:
  // Parses the file. The encoding is accepted for compatibility and has no effect: bytes
  // are kept as they are. A file that cannot be opened gives an empty database; a
  // malformed one throws DbcFormatError.
  DBC_Decoder(const std::string& fileName, const std::string& encoding);

  // Non-throwing loaders: nullptr and *fault filled when the text is refused. load() also
  // refuses a file it cannot open.
  static std::unique_ptr<DBC_Decoder> load(const std::string& fileName, ParseFault* fault);
  static std::unique_ptr<DBC_Decoder> fromText(std::string_view text, ParseFault* fault);

  // The two passes over a file. Each reads the file by itself; callers normally use the
  // constructor, which also runs the post-pass and builds the indexes.
  ParseStatus decodeDBCFile(std::string fileName, std::string encoding);
  ParseStatus updateAttrValues(std::string fileName, std::string encoding);

  // Line parsers. They return an empty record (empty name) for a line they skip.
  DBC_MESSAGE getMessageValues(std::vector<std::string> tokens);
  DBC_SIGNAL getSignalValues(std::vector<std::string> tokens);
  void appendSignalValues(std::vector<std::string> tokens, DBC_MESSAGE* message);
  static ValueTable getValueTable(std::string_view text);

  // Lookups: exact, case-sensitive names; the first match in file order wins; 1 when
  // found, 0 otherwise (output untouched). A pointer result stays valid until the database
  // is destroyed. After changing a name or a multiplex mode through a pointer, call
  // rebuildIndexes().
  int getMessage(std::string_view name, DBC_MESSAGE** out);
  int getMessage(std::string_view name, DBC_MESSAGE* out) const;
  int getSignal(std::string_view messageName, std::string_view signalName, DBC_SIGNAL** out);
  int getSignal(std::string_view messageName, std::string_view signalName, DBC_SIGNAL* out) const;
  int updateMessage(std::string_view name, const DBC_MESSAGE* in);
  int updateSignal(std::string_view messageName, std::string_view signalName, const DBC_SIGNAL* in);

  // Codec. Every data buffer is kDataBytes long; bit positions outside it are neither
  // read (they read as 0) nor written.
  static uint64_t GetDataMask(int bits);
  static void changeBitOfByte(uint8_t* byte, uint8_t bit, uint8_t value);
  static void rawValueToArray(uint64_t raw, uint16_t startBit, uint8_t length, uint8_t* data,
                              ByteOrder order);
  static uint64_t arrayValueToRaw(uint16_t startBit, uint8_t length, const uint8_t* data,
                                  ByteOrder order);
  static int setSignalRealValue(DBC_SIGNAL* signal, double value);
  static double getSignalRealValue(DBC_SIGNAL* signal);
  static uint64_t getSignalRawValue(const DBC_SIGNAL* signal, double value);
  static void setValueType(unsigned int type, DBC_SIGNAL* signal);

  // Index-based access for the exported functions; none of these allocate.
  struct SignalRef {
    uint32_t message;      // message holding the signal
    uint32_t signal;       // index within that message
    uint32_t firstByName;  // first message of the requested name (may differ from message)
  };
  static constexpr uint32_t kNone = UINT32_MAX;
  uint32_t findMessage(std::string_view name) const {
    return byName_.find(NameIndex::hash_of(name),
                        [&](uint32_t mi) { return messageNamed(mi, name); });
  }
  uint32_t findMessageById(uint32_t id) const { return byId_.find(id); }
  bool findSignal(std::string_view messageName, std::string_view signalName, SignalRef* out) const;
  // Index of the message's first multiplexer switch, or kNone.
  uint32_t muxSwitch(uint32_t message) const { return switchOf_[message]; }

  std::vector<DBC_MESSAGE>& messages() { return messages_; }
  const std::vector<DBC_MESSAGE>& messages() const { return messages_; }
  const std::vector<DBC_ATTRIBUTE>& attributeDefinitions() const { return definitions_; }
  // The definition an assignment refers to; an empty record for an index this database
  // does not have (an assignment copied in from another database).
  const DBC_ATTRIBUTE& definitionOf(const DBC_ATTRIBUTE_VALUE& assigned) const;
  // The attribute as its object holds it: the definition with the assigned value.
  DBC_ATTRIBUTE attributeCopy(const DBC_ATTRIBUTE_VALUE& assigned) const;

  // Decode/encode plans and the name-lookup cache of the exported functions, rebuilt with
  // the indexes: call rebuildIndexes() after changing a signal's layout, scaling, value
  // type or multiplexing through a pointer.
  const CodecPlan& plan() const { return plan_; }
  NameCache& nameCache() { return nameCache_; }

  void rebuildIndexes();

 private:
  // Tokens of one line: views into the file's text or into the reader's line buffer.
  using Tokens = std::vector<std::string_view>;
  // A line of the file that may assign an attribute, kept by the first pass for the second.
  struct Line {
    std::string_view text;
    size_t number;
  };
  // Buffers the reader reuses from line to line, so that a line costs no allocation of
  // its own beyond what the database keeps.
  struct Scratch {
    std::string line;
    std::string text;
    Tokens parts;
    std::vector<DBC_SIGNAL> signals;  // signals of the message being read, not yet moved
    // Each distinct receivers token read so far and its list, which signals share.
    struct TextHash {
      using is_transparent = void;
      size_t operator()(std::string_view t) const { return std::hash<std::string_view>{}(t); }
    };
    std::unordered_map<std::string, NameList, TextHash, std::equal_to<>> receiverLists;
    // (id, position) of every message, sorted; rebuilt when messages were added since.
    std::vector<std::pair<uint32_t, uint32_t>> byId;
    size_t byIdMessages = 0;
  };

  DBC_Decoder() = default;
  ParseStatus decodeText(std::string_view text, std::vector<Line>* assignments);
  ParseStatus updateAttrText(std::string_view text);
  ParseStatus updateAttrLines(const std::vector<Line>& lines);
  void postPass();
  ParseStatus run(std::string_view text);

  bool handleLine(Tokens& tokens, Scratch& scratch);
  bool parseMessage(Tokens& tokens, DBC_MESSAGE* out);
  void parseSignal(Tokens& tokens, Scratch& scratch, DBC_SIGNAL* out);
  void flushSignals(Scratch& scratch);
  bool handleComment(const Tokens& tokens, Scratch& scratch);
  void handleValueTable(const Tokens& tokens, Scratch& scratch);
  void handleValueType(const Tokens& tokens, Scratch& scratch);
  bool handleAttributeDefinition(const Tokens& tokens);
  void handleAttributeDefault(const Tokens& tokens);
  bool handleAttributeAssignment(std::string_view line, Tokens& tokens, const IdIndex& firstById);

  // Positions of the messages with this id, in file order, as [first, last).
  std::pair<const std::pair<uint32_t, uint32_t>*, const std::pair<uint32_t, uint32_t>*>
  messagesWithId(uint32_t id, Scratch& scratch);
  uint32_t firstDefinition(std::string_view name) const;

  // Whether the record a name-table value stands for still has the key looked up; the
  // tables hold no names of their own (see NameIndex).
  bool messageNamed(uint32_t mi, std::string_view name) const {
    return mi < messages_.size() && messages_[mi].name == name;
  }
  bool signalNamed(uint32_t ref, std::string_view messageName, std::string_view signalName) const;

  std::vector<DBC_MESSAGE> messages_;
  std::vector<DBC_ATTRIBUTE> definitions_;

  // The name tables read their keys from messages_, so every change of a name or of the
  // message and signal lists is followed by rebuildIndexes().
  NameIndex byName_;
  NameIndex signalIndex_;  // (message name, signal name) -> position in signalRefs_
  std::vector<SignalRef> signalRefs_;
  IdIndex byId_;
  std::vector<uint32_t> switchOf_;
  CodecPlan plan_;
  NameCache nameCache_;

  ParseFault fault_;
  size_t lineNo_ = 0;
  bool missing_ = false;  // a handler looked for a token the line does not have
};

}  // namespace veltrix::dbc
