// The file reader: first pass (messages, signals, comments, value tables, value types,
// attribute definitions and defaults), second pass (attribute assignments) and the
// post-pass that turns attributes into message properties.
#include "dbc/decoder.hpp"

#include <cstdio>

#include "dbc/text.hpp"

namespace veltrix::dbc {

namespace {

// Calls fn(line) for each line of text; "\n" and "\r\n" endings are never part of a line.
template <typename Fn>
bool for_each_line(std::string_view text, size_t& lineNo, Fn&& fn) {
  lineNo = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    size_t next = end == std::string_view::npos ? text.size() : end + 1;
    if (end == std::string_view::npos) end = text.size();
    if (end > pos && text[end - 1] == '\r') --end;
    ++lineNo;
    if (!fn(text.substr(pos, end - pos))) return false;
    pos = next;
  }
  return true;
}

bool read_file(const std::string& path, std::string* out) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  out->clear();
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) out->append(chunk, n);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

std::string join_from(const std::vector<std::string>& tokens, size_t first) {
  std::string out = tokens[first];
  for (size_t i = first + 1; i < tokens.size(); ++i) {
    out += ' ';
    out += tokens[i];
  }
  return out;
}

uint32_t read_id(const std::string& token) { return uint32_t(read_unsigned_auto(token)); }

bool contains(const std::string& text, char c) { return text.find(c) != std::string::npos; }

DBC_SIGNAL* first_signal(DBC_MESSAGE& message, std::string_view name) {
  for (DBC_SIGNAL& s : message.signals) {
    if (s.name == name) return &s;
  }
  return nullptr;
}

// The file gives a Motorola signal by its most significant bit. Walk length - 1 bits
// towards the least significant one:
//
//   byte k   : 7 6 5 4 3 2 1 0   bit b -> b - 1 inside a byte,
//                            |
//   byte k+1 : 7 6 5 ... <---+   bit 0 of byte k -> bit 7 of byte k + 1 (position + 15)
//
// A length of 0 yields start + 1; that odd value is kept as files have always had it.
uint16_t motorola_lsb(uint16_t msb, uint16_t length) {
  if (length == 0) return uint16_t(msb + 1);
  uint32_t pos = msb;
  for (uint32_t i = 1; i < length; ++i) pos = (pos % 8 == 0) ? pos + 15 : pos - 1;
  return uint16_t(pos);
}

}  // namespace

DbcFormatError::DbcFormatError(const ParseFault& f)
    : std::out_of_range("DBC line " + std::to_string(f.line) + " (" + f.keyword +
                        ") lacks a token"),
      fault(f) {}

DBC_Decoder::DBC_Decoder(const std::string& fileName, const std::string& encoding) {
  (void)encoding;
  std::string text;
  if (!read_file(fileName, &text)) return;  // an unreadable file is an empty database
  if (run(text) != ParseStatus::Ok) throw DbcFormatError(fault_);
}

std::unique_ptr<DBC_Decoder> DBC_Decoder::load(const std::string& fileName, ParseFault* fault) {
  std::string text;
  if (!read_file(fileName, &text)) {
    if (fault) *fault = ParseFault{ParseStatus::CannotOpen, 0, {}};
    return nullptr;
  }
  return fromText(text, fault);
}

std::unique_ptr<DBC_Decoder> DBC_Decoder::fromText(std::string_view text, ParseFault* fault) {
  std::unique_ptr<DBC_Decoder> db(new DBC_Decoder());
  if (db->run(text) != ParseStatus::Ok) {
    if (fault) *fault = db->fault_;
    return nullptr;
  }
  if (fault) *fault = ParseFault{};
  return db;
}

ParseStatus DBC_Decoder::run(std::string_view text) {
  ParseStatus s = decodeText(text);
  if (s == ParseStatus::Ok) s = updateAttrText(text);
  if (s != ParseStatus::Ok) return s;
  postPass();
  rebuildIndexes();
  return ParseStatus::Ok;
}

ParseStatus DBC_Decoder::decodeDBCFile(std::string fileName, std::string encoding) {
  (void)encoding;  // compared with "GBK" once upon a time; bytes are always kept as read
  std::string text;
  if (!read_file(fileName, &text)) return ParseStatus::CannotOpen;
  ParseStatus s = decodeText(text);
  rebuildIndexes();
  return s;
}

ParseStatus DBC_Decoder::updateAttrValues(std::string fileName, std::string encoding) {
  (void)encoding;
  std::string text;
  if (!read_file(fileName, &text)) return ParseStatus::CannotOpen;
  return updateAttrText(text);
}

// ---- First pass --------------------------------------------------------------------

ParseStatus DBC_Decoder::decodeText(std::string_view text) {
  std::string line;
  bool ok = for_each_line(text, lineNo_, [&](std::string_view raw) {
    line.assign(raw);
    remove_char(line, ';');
    std::vector<std::string> tokens = string_split(line, " ");  // a tab does not separate
    if (tokens.size() < 2) return true;
    missing_ = false;
    std::string keyword = tokens[0];
    if (handleLine(tokens)) return true;
    fault_ = ParseFault{ParseStatus::MissingToken, lineNo_, std::move(keyword)};
    return false;
  });
  return ok ? ParseStatus::Ok : ParseStatus::MissingToken;
}

// Returns false when the line lacks a token its handler needs.
bool DBC_Decoder::handleLine(std::vector<std::string>& tokens) {
  const std::string& kw = tokens[0];
  const size_t n = tokens.size();
  if (kw == "BO_" && n >= 4) {
    DBC_MESSAGE m = getMessageValues(std::move(tokens));
    if (missing_) return false;
    if (!m.name.empty()) messages_.push_back(std::move(m));
  } else if (kw == "SG_" && n >= 7) {
    // Signals belong to the most recently accepted message; before any, they are dropped.
    if (!messages_.empty()) appendSignalValues(std::move(tokens), &messages_.back());
  } else if (kw == "CM_" && n >= 4) {
    return handleComment(tokens);
  } else if (kw == "VAL_" && n >= 4) {
    handleValueTable(tokens);
  } else if (kw == "SIG_VALTYPE_" && n >= 4) {
    handleValueType(tokens);
  } else if (kw == "BA_DEF_" && n >= 3) {
    return handleAttributeDefinition(tokens);
  } else if (kw == "BA_DEF_DEF_" && n >= 3) {
    handleAttributeDefault(tokens);
  }
  return true;
}

DBC_MESSAGE DBC_Decoder::getMessageValues(std::vector<std::string> tokens) {
  DBC_MESSAGE m;
  if (tokens.size() < 4) {
    missing_ = true;
    return m;
  }
  // Every id of 2048 and more is taken as extended, whether or not the file set bit 31.
  const uint32_t id = read_id(tokens[1]);
  const uint32_t stored = id < 2048 ? id : (id | 0x80000000u);
  std::string name = tokens[2];
  if (!contains(name, ':')) {
    if (contains(tokens[3], ':')) tokens.erase(tokens.begin() + 3);  // "BO_ 1 Name : 8 Node"
  } else {
    remove_char(name, ':');
  }
  if (name.empty()) return m;
  if (tokens.size() < 5) {  // the sender is required
    missing_ = true;
    return m;
  }
  m.name = std::move(name);
  m.id = stored;
  m.dlc = uint8_t(read_unsigned_auto(tokens[3]));
  m.sender = tokens[4];
  m.enable = 1;
  m.cycleTime = 10;
  return m;
}

DBC_SIGNAL DBC_Decoder::getSignalValues(std::vector<std::string> tokens) {
  DBC_SIGNAL s;
  if (tokens.size() < 7 || tokens[0] != "SG_") return s;
  std::string name = tokens[1];
  remove_char(name, ':');
  if (name.empty()) return s;
  s.name = std::move(name);

  // "SG_ Name : ..." / "SG_ Name M : ..." / "SG_ Name m3 : ...": the colon may stand alone
  // after the multiplex token; the layout token is then the fourth either way.
  std::string mux = tokens[2];
  if (!contains(mux, ':')) {
    if (contains(tokens[3], ':')) tokens.erase(tokens.begin() + 3);
  } else {
    remove_char(mux, ':');
  }
  if (contains(mux, 'M')) {  // "m3M" (a switch that is itself multiplexed) counts as switch
    s.multiplexMode = MUX_SWITCH;
  } else if (contains(mux, 'm')) {
    s.multiplexMode = MUX_SELECTED;
    remove_char(mux, 'm');
    s.multiplexValue = uint16_t(read_unsigned_auto(mux));
  }

  std::string layout = tokens[3];
  for (char& c : layout) {
    if (c == '|' || c == '@') c = ' ';
  }
  std::vector<std::string> parts = string_split(layout, " ");
  if (parts.size() > 2) {
    s.startBit = uint16_t(read_unsigned_auto(parts[0]));
    s.length = uint16_t(read_unsigned_auto(parts[1]));
    if (contains(parts[2], '0')) {
      s.byteOrder = MOTOROLA;
      s.startBit = motorola_lsb(s.startBit, s.length);
    }
    if (contains(parts[2], '1')) s.byteOrder = INTEL;
    if (contains(parts[2], '+')) s.isSigned = 0;
    if (contains(parts[2], '-')) s.isSigned = 1;
  }

  std::string scale = tokens[4];
  remove_char(scale, '(');
  remove_char(scale, ')');
  parts = split(scale, ',');
  if (parts.size() >= 2) {
    s.factor = read_double(parts[0]);
    s.offset = read_double(parts[1]);
  }

  std::string range = tokens[5];
  remove_char(range, '[');
  remove_char(range, ']');
  parts = split(range, '|');
  if (parts.size() >= 2) {
    s.minimum = read_double(parts[0]);
    s.maximum = read_double(parts[1]);
    // An empty range ([0|0]) means "whatever the bits hold": the unsigned span above the
    // offset, even for a signed signal.
    if (s.minimum == s.maximum) {
      s.minimum = s.offset;
      s.maximum = double(GetDataMask(s.length)) * s.factor + s.offset;
    }
  }

  // The unit may hold spaces and so span tokens: "km h" arrives as `"km` and `h"`.
  for (size_t i = 6; i < tokens.size(); ++i) {
    const int quotes = GetDoubleQuoteNum(tokens[i]);
    if (quotes == 2) {
      s.unit = tokens[i];
      break;
    }
    if (quotes == 1) {
      std::vector<std::string> pieces{tokens[i]};
      for (size_t j = i + 1; j < tokens.size(); ++j) {
        pieces.push_back(tokens[j]);
        if (GetDoubleQuoteNum(tokens[j]) == 1) break;
      }
      s.unit = string_join(pieces, " ");
      break;
    }
  }
  remove_char(s.unit, '"');

  split(tokens.back(), ',', s.receivers);
  return s;
}

void DBC_Decoder::appendSignalValues(std::vector<std::string> tokens, DBC_MESSAGE* message) {
  if (!message) return;
  DBC_SIGNAL s = getSignalValues(std::move(tokens));
  if (!s.name.empty()) message->signals.push_back(std::move(s));
}

std::map<int32_t, std::string> DBC_Decoder::getValueTable(const std::string& text) {
  std::map<int32_t, std::string> table;
  const size_t n = text.size();
  size_t i = 0;
  std::string number;
  std::string label;
  while (i < n) {
    number.clear();
    for (; i < n && text[i] != '"'; ++i) {
      if (text[i] != ' ') number += text[i];
    }
    if (i >= n) break;
    label.clear();
    for (++i; i < n && text[i] != '"'; ++i) label += text[i];
    if (i >= n) break;  // an unterminated pair is dropped
    ++i;
    table[int32_t(read_unsigned_auto(number))] = label;
  }
  return table;
}

bool DBC_Decoder::handleComment(const std::vector<std::string>& tokens) {
  const std::string& object = tokens[1];
  if (object == "BO_") {
    const uint32_t id = read_id(tokens[2]);
    DBC_MESSAGE* m = firstMessageWithId(id);
    if (!m) return true;
    std::string text = join_from(tokens, 3);
    remove_char(text, ';');
    remove_char(text, '"');
    m->comment = std::move(text);
  } else if (object == "SG_") {
    const uint32_t id = read_id(tokens[2]);
    const std::string& name = tokens[3];
    for (DBC_MESSAGE& m : messages_) {
      if (m.id != id) continue;
      DBC_SIGNAL* s = first_signal(m, name);
      if (!s) continue;
      if (tokens.size() < 5) return false;  // a signal comment without text
      std::string text = join_from(tokens, 4);
      remove_char(text, ';');
      remove_char(text, '"');
      s->comment = std::move(text);
    }
  }
  // Node and network comments are not kept. A comment continued on further lines keeps
  // its first line only; the next lines are read as ordinary lines.
  return true;
}

void DBC_Decoder::handleValueTable(const std::vector<std::string>& tokens) {
  const uint32_t id = read_id(tokens[1]);
  const std::string& name = tokens[2];
  DBC_SIGNAL* previous = nullptr;  // the table is parsed once and moved into the last one
  std::map<int32_t, std::string> table;
  for (DBC_MESSAGE& m : messages_) {
    if (m.id != id) continue;
    DBC_SIGNAL* s = first_signal(m, name);
    if (!s) continue;
    if (!previous) table = getValueTable(join_from(tokens, 3));
    if (previous) previous->valueTable = table;
    previous = s;
  }
  if (previous) previous->valueTable = std::move(table);
}

void DBC_Decoder::handleValueType(const std::vector<std::string>& tokens) {
  const uint32_t id = read_id(tokens[1]);
  std::string text;
  for (size_t i = 2; i < tokens.size(); ++i) text += tokens[i];
  remove_char(text, ';');
  std::vector<std::string> parts = split(text, ':');
  if (parts.size() < 2) return;
  DBC_MESSAGE* m = firstMessageWithId(id);
  if (!m) return;
  DBC_SIGNAL* s = first_signal(*m, parts[0]);
  if (s) setValueType(unsigned(read_unsigned_auto(parts[1])), s);
}

bool DBC_Decoder::handleAttributeDefinition(const std::vector<std::string>& tokens) {
  DBC_ATTRIBUTE a;
  size_t i = 1;
  const std::string& second = tokens[1];
  if (second == "SG_" || second == "BO_" || second == "BU_") {
    a.objectType = second;
    i = 2;
  } else {
    a.objectType = " ";
  }
  if (tokens.size() < i + 2) return false;
  a.name = tokens[i];
  remove_char(a.name, '"');
  a.valueType = tokens[i + 1];
  if (a.valueType == "FLOAT" || a.valueType == "INT" || a.valueType == "HEX") {
    if (tokens.size() < i + 4) return false;
    a.minimum = read_double(tokens[i + 2]);
    a.maximum = read_double(tokens[i + 3]);
  } else if (a.valueType == "ENUM") {
    if (tokens.size() < i + 3) return false;
    // Only the next token is read, so values written with a space after the comma are
    // lost after the first one.
    std::string values = tokens[i + 2];
    remove_char(values, '"');
    remove_char(values, ';');
    split(values, ',', a.enumValues);
  }
  definitions_.push_back(std::move(a));
  return true;
}

void DBC_Decoder::handleAttributeDefault(const std::vector<std::string>& tokens) {
  std::string name = tokens[1];
  remove_char(name, '"');
  DBC_ATTRIBUTE* d = firstDefinition(name);
  if (!d) return;
  d->value = tokens[2];
  remove_char(d->value, '"');
}

// ---- Second pass -------------------------------------------------------------------

ParseStatus DBC_Decoder::updateAttrText(std::string_view text) {
  std::string line;
  bool ok = for_each_line(text, lineNo_, [&](std::string_view raw) {
    const size_t at = raw.find_first_not_of(" ;");
    if (at == std::string_view::npos || raw.substr(at, 3) != "BA_" ||
        (at + 3 < raw.size() && raw[at + 3] != ' ' && raw[at + 3] != ';')) {
      return true;  // cheap test first: most lines are not assignments
    }
    if (handleAttributeAssignment(std::string(raw))) return true;
    fault_ = ParseFault{ParseStatus::MissingToken, lineNo_, "BA_"};
    return false;
  });
  return ok ? ParseStatus::Ok : ParseStatus::MissingToken;
}

bool DBC_Decoder::handleAttributeAssignment(std::string line) {
  trim(line, ";");
  std::vector<std::string> tokens = string_split(line, " ");
  if (tokens.size() < 3 || tokens[0] != "BA_") return true;
  std::string name = tokens[1];
  trim(name, "\"");
  const std::string& object = tokens[2];
  if (object == "BO_") {
    if (tokens.size() < 5) return false;
    DBC_MESSAGE* m = firstMessageWithId(read_id(tokens[3]));
    DBC_ATTRIBUTE* d = firstDefinition(name);
    if (!m || !d) return true;
    // The definition itself keeps the last value assigned anywhere; each object gets its
    // own copy, and a repeated assignment adds a further copy.
    d->value = tokens[4];
    m->attributes.push_back(*d);
  } else if (object == "SG_") {
    if (tokens.size() < 6) return false;
    DBC_MESSAGE* m = firstMessageWithId(read_id(tokens[3]));
    DBC_SIGNAL* s = m ? first_signal(*m, tokens[4]) : nullptr;
    DBC_ATTRIBUTE* d = firstDefinition(name);
    if (!s || !d) return true;
    d->value = tokens[5];
    s->attributes.push_back(*d);
    // Meant for the initial-value attribute, but any signal attribute sets the raw value.
    s->rawValue = uint64_t(read_signed_ll_decimal(tokens[5]));
  }
  return true;
}

// ---- Post-pass ---------------------------------------------------------------------

void DBC_Decoder::postPass() {
  uint8_t brsDefault = 0;
  if (const DBC_ATTRIBUTE* d = firstDefinition("CANFD_BRS")) brsDefault = d->value == "1";

  for (DBC_MESSAGE& m : messages_) {
    for (const DBC_ATTRIBUTE& a : m.attributes) {
      if (a.name == "GenMsgCycleTime" &&
          (a.valueType == "INT" || a.valueType == "FLOAT" || a.valueType == "HEX")) {
        m.cycleTime = uint32_t(saturate_to_i64(read_double(a.value)));
      } else if (a.name == "VFrameFormat" && a.valueType == "ENUM") {
        const int64_t index = read_signed_decimal(a.value);
        if (index < 0 || uint64_t(index) >= a.enumValues.size()) continue;
        const std::string& format = a.enumValues[size_t(index)];
        if (format == "StandardCAN") {
          m.id &= ~0x80000000u;
          m.isCanFd = 0;
          m.bitRateSwitch = 0;
        } else if (format == "ExtendedCAN" || format == "J1939PG") {
          m.id |= 0x80000000u;
          m.isCanFd = 0;
          m.bitRateSwitch = 0;
        } else if (format == "StandardCAN_FD") {
          m.id &= ~0x80000000u;
          m.isCanFd = 1;
          m.bitRateSwitch = brsDefault;
        } else if (format == "ExtendedCAN_FD") {
          m.id |= 0x80000000u;
          m.isCanFd = 1;
          m.bitRateSwitch = brsDefault;
        }
      }
    }
  }
}

DBC_MESSAGE* DBC_Decoder::firstMessageWithId(uint32_t id) {
  for (DBC_MESSAGE& m : messages_) {
    if (m.id == id) return &m;
  }
  return nullptr;
}

DBC_ATTRIBUTE* DBC_Decoder::firstDefinition(std::string_view name) {
  for (DBC_ATTRIBUTE& d : definitions_) {
    if (d.name == name) return &d;
  }
  return nullptr;
}

}  // namespace veltrix::dbc
