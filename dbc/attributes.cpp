// Attributes: their definitions and defaults (first pass), their assignments to messages
// and signals (second pass), and the post-pass that turns them into message properties.
//
// A message or signal keeps each assignment as the definition's position plus the value
// given. The definition's other fields never change once the first pass is over, so this
// is the whole attribute as it stood when assigned, without a copy of its strings and
// enumeration per object.
#include "dbc/decoder.hpp"
#include "dbc/lines.hpp"
#include "dbc/text.hpp"

namespace veltrix::dbc {

namespace {

DBC_SIGNAL* first_signal(DBC_MESSAGE& message, std::string_view name) {
  for (DBC_SIGNAL& s : message.signals) {
    if (s.name == name) return &s;
  }
  return nullptr;
}

bool is_numeric_type(std::string_view type) {
  return type == "INT" || type == "FLOAT" || type == "HEX";
}

}  // namespace

// ---- Definitions (first pass) --------------------------------------------------------

bool DBC_Decoder::handleAttributeDefinition(const Tokens& tokens) {
  DBC_ATTRIBUTE a;
  size_t i = 1;
  const std::string_view second = tokens[1];
  if (second == "SG_" || second == "BO_" || second == "BU_") {
    a.objectType = second;
    i = 2;
  } else {
    a.objectType = " ";
  }
  if (tokens.size() < i + 2) return false;
  append_without(a.name, tokens[i], '"');
  a.valueType = tokens[i + 1];
  if (is_numeric_type(a.valueType)) {
    if (tokens.size() < i + 4) return false;
    a.minimum = read_double(tokens[i + 2]);
    a.maximum = read_double(tokens[i + 3]);
  } else if (a.valueType == "ENUM") {
    if (tokens.size() < i + 3) return false;
    // Only the next token is read, so values written with a space after the comma are
    // lost after the first one.
    std::string values;
    for (char c : tokens[i + 2]) {
      if (c != '"' && c != ';') values += c;
    }
    split(values, ',', a.enumValues);
  }
  definitions_.push_back(std::move(a));
  return true;
}

void DBC_Decoder::handleAttributeDefault(const Tokens& tokens) {
  std::string name;
  append_without(name, tokens[1], '"');
  const uint32_t d = firstDefinition(name);
  if (d == kNone) return;
  std::string& value = definitions_[d].value;
  value.clear();
  append_without(value, tokens[2], '"');
}

// ---- Assignments (second pass) -------------------------------------------------------

ParseStatus DBC_Decoder::updateAttrText(std::string_view text) {
  std::vector<Line> lines;
  size_t number = 0;
  for_each_line(text, number, [&](std::string_view raw) {
    if (may_assign_attribute(raw)) lines.push_back(Line{raw, number});
    return true;
  });
  return updateAttrLines(lines);
}

ParseStatus DBC_Decoder::updateAttrLines(const std::vector<Line>& lines) {
  if (lines.empty()) return ParseStatus::Ok;
  // Assignments name messages by id; the first message of an id takes them.
  IdIndex firstById;
  firstById.reset(messages_.size());
  for (uint32_t i = 0; i < messages_.size(); ++i) firstById.insert_first(messages_[i].id, i);
  Tokens tokens;
  for (const Line& line : lines) {
    lineNo_ = line.number;
    if (!handleAttributeAssignment(line.text, tokens, firstById)) {
      fault_ = ParseFault{ParseStatus::MissingToken, line.number, "BA_"};
      return ParseStatus::MissingToken;
    }
  }
  // The lists grew one assignment at a time; the database keeps them as long as it lives.
  for (DBC_MESSAGE& m : messages_) {
    m.attributes.shrink_to_fit();
    for (DBC_SIGNAL& sig : m.signals) sig.attributes.shrink_to_fit();
  }
  return ParseStatus::Ok;
}

bool DBC_Decoder::handleAttributeAssignment(std::string_view line, Tokens& tokens,
                                            const IdIndex& firstById) {
  const size_t first = line.find_first_not_of(';');
  if (first == std::string_view::npos) return true;
  line = line.substr(first, line.find_last_not_of(';') - first + 1);
  split_views(line, ' ', tokens);
  if (tokens.size() < 3 || tokens[0] != "BA_") return true;
  std::string_view name = tokens[1];
  const size_t open = name.find_first_not_of('"');
  name = open == std::string_view::npos ? std::string_view()
                                        : name.substr(open, name.find_last_not_of('"') - open + 1);
  const std::string_view object = tokens[2];
  AttributeList* into = nullptr;
  std::string_view value;
  if (object == "BO_") {
    if (tokens.size() < 5) return false;
    const uint32_t mi = firstById.find(uint32_t(read_unsigned_auto(tokens[3])));
    if (mi == IdIndex::kMissing) return true;
    into = &messages_[mi].attributes;
    value = tokens[4];
  } else if (object == "SG_") {
    if (tokens.size() < 6) return false;
    const uint32_t mi = firstById.find(uint32_t(read_unsigned_auto(tokens[3])));
    DBC_SIGNAL* s = mi == IdIndex::kMissing ? nullptr : first_signal(messages_[mi], tokens[4]);
    if (!s || firstDefinition(name) == kNone) return true;
    into = &s->attributes;
    value = tokens[5];
    // Meant for the initial-value attribute, but any signal attribute sets the raw value.
    s->rawValue = uint64_t(read_signed_ll_decimal(value));
  } else {
    return true;  // node and network-wide assignments are not kept
  }
  const uint32_t d = firstDefinition(name);
  if (d == kNone) return true;
  // The definition itself keeps the last value assigned anywhere; each object keeps what
  // was assigned to it, and a repeated assignment adds a further entry.
  definitions_[d].value = value;
  into->push_back(DBC_ATTRIBUTE_VALUE{d, std::string(value)});
  return true;
}

// ---- Post-pass -----------------------------------------------------------------------

void DBC_Decoder::postPass() {
  uint8_t brsDefault = 0;
  if (const uint32_t d = firstDefinition("CANFD_BRS"); d != kNone) {
    brsDefault = definitions_[d].value == "1";
  }

  for (DBC_MESSAGE& m : messages_) {
    for (const DBC_ATTRIBUTE_VALUE& assigned : m.attributes) {
      const DBC_ATTRIBUTE& a = definitionOf(assigned);
      if (a.name == "GenMsgCycleTime" && is_numeric_type(a.valueType)) {
        m.cycleTime = uint32_t(saturate_to_i64(read_double(assigned.value)));
      } else if (a.name == "VFrameFormat" && a.valueType == "ENUM") {
        const int64_t index = read_signed_decimal(assigned.value);
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

// ---- Access --------------------------------------------------------------------------

uint32_t DBC_Decoder::firstDefinition(std::string_view name) const {
  for (uint32_t i = 0; i < definitions_.size(); ++i) {
    if (definitions_[i].name == name) return i;
  }
  return kNone;
}

const DBC_ATTRIBUTE& DBC_Decoder::definitionOf(const DBC_ATTRIBUTE_VALUE& assigned) const {
  static const DBC_ATTRIBUTE kUnknown;
  return assigned.definition < definitions_.size() ? definitions_[assigned.definition] : kUnknown;
}

DBC_ATTRIBUTE DBC_Decoder::attributeCopy(const DBC_ATTRIBUTE_VALUE& assigned) const {
  DBC_ATTRIBUTE copy = definitionOf(assigned);
  copy.value = assigned.value;
  return copy;
}

}  // namespace veltrix::dbc
