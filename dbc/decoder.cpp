// The file reader: first pass (messages, signals, comments, value tables, value types,
// attribute definitions and defaults), second pass (attribute assignments) and the
// post-pass that turns attributes into message properties.
#include "dbc/decoder.hpp"

#include <algorithm>
#include <cstdio>

#include "dbc/lines.hpp"
#include "dbc/text.hpp"

namespace veltrix::dbc {

namespace {

// The whole file in one buffer, read at once where its size is known; both passes then
// work on this text.
bool read_file(const std::string& path, std::string* out) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  out->clear();
  long size = -1;
  if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
  std::rewind(f);
  if (size > 0) {
    out->resize(size_t(size));
    out->resize(std::fread(out->data(), 1, out->size(), f));
  }
  // A file that grew since its size was taken, or one without a size (a pipe), is read
  // on to its end.
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) out->append(chunk, n);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

// Tokens from `first` on, each after the first preceded by one space, into out.
void join_from(const std::vector<std::string_view>& tokens, size_t first, std::string& out) {
  out.assign(tokens[first]);
  for (size_t i = first + 1; i < tokens.size(); ++i) {
    out += ' ';
    out += tokens[i];
  }
}

// The same text without a copy where the line already holds it: tokens are views into
// one line, so when no run of spaces lies between them the joined text is that stretch.
std::string_view joined_from(const std::vector<std::string_view>& tokens, size_t first,
                             std::string& scratch) {
  const char* begin = tokens[first].data();
  const char* end = tokens.back().data() + tokens.back().size();
  const std::string_view stretch(begin, size_t(end - begin));
  if (stretch.find("  ") == std::string_view::npos) return stretch;
  join_from(tokens, first, scratch);
  return scratch;
}

// A comment's text: the joined tokens without semicolons and double quotes.
RareText comment_from(const std::vector<std::string_view>& tokens, size_t first,
                      std::string& scratch) {
  scratch.clear();
  for (size_t i = first; i < tokens.size(); ++i) {
    if (i > first) scratch += ' ';
    append_without(scratch, tokens[i], '"');  // the line's semicolons are already gone
  }
  return RareText(scratch);
}

uint32_t read_id(std::string_view token) { return uint32_t(read_unsigned_auto(token)); }

std::vector<std::string_view> views_of(const std::vector<std::string>& tokens) {
  return std::vector<std::string_view>(tokens.begin(), tokens.end());
}

// Whether the line's first token, once its semicolons are gone, is a keyword the reader
// handles. Every other line is ignored, so it is not cut into tokens at all.
bool starts_with_keyword(std::string_view line) {
  size_t i = 0;
  while (i < line.size() && (line[i] == ' ' || line[i] == ';')) ++i;
  char word[16];
  size_t n = 0;
  for (; i < line.size() && line[i] != ' '; ++i) {
    if (line[i] == ';') continue;
    if (n == sizeof word) return false;  // longer than any keyword
    word[n++] = line[i];
  }
  const std::string_view w(word, n);
  return w == "SG_" || w == "VAL_" || w == "BO_" || w == "CM_" || w == "BA_DEF_" ||
         w == "BA_DEF_DEF_" || w == "SIG_VALTYPE_";
}

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
  std::vector<Line> assignments;  // views into text, which outlives both passes
  ParseStatus s = decodeText(text, &assignments);
  if (s == ParseStatus::Ok) s = updateAttrLines(assignments);
  if (s != ParseStatus::Ok) return s;
  postPass();
  rebuildIndexes();
  return ParseStatus::Ok;
}

ParseStatus DBC_Decoder::decodeDBCFile(std::string fileName, std::string encoding) {
  (void)encoding;  // compared with "GBK" once upon a time; bytes are always kept as read
  std::string text;
  if (!read_file(fileName, &text)) return ParseStatus::CannotOpen;
  ParseStatus s = decodeText(text, nullptr);
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

ParseStatus DBC_Decoder::decodeText(std::string_view text, std::vector<Line>* assignments) {
  Scratch scratch;
  scratch.signals.reserve(64);  // more than most messages have: rarely grown
  Tokens tokens;
  tokens.reserve(64);
  bool ok = for_each_line(text, lineNo_, [&](std::string_view raw) {
    if (assignments && may_assign_attribute(raw)) assignments->push_back(Line{raw, lineNo_});
    if (!starts_with_keyword(raw)) return true;
    // Semicolons vanish wherever they stand, even inside a token. Most lines have them
    // only at the end, after the last token: cutting the line there needs no copy.
    std::string_view line = raw.substr(0, raw.find_last_not_of(" ;") + 1);
    if (line.find(';') != std::string_view::npos) {
      scratch.line.clear();
      append_without(scratch.line, line, ';');
      line = scratch.line;
    }
    split_views(line, ' ', tokens);  // a tab does not separate
    if (tokens.size() < 2) return true;
    const std::string_view keyword = tokens[0];
    if (handleLine(tokens, scratch)) return true;
    fault_ = ParseFault{ParseStatus::MissingToken, lineNo_, std::string(keyword)};
    return false;
  });
  flushSignals(scratch);
  messages_.shrink_to_fit();
  return ok ? ParseStatus::Ok : ParseStatus::MissingToken;
}

// Returns false when the line lacks a token its handler needs.
bool DBC_Decoder::handleLine(Tokens& tokens, Scratch& scratch) {
  const std::string_view kw = tokens[0];
  const size_t n = tokens.size();
  if (kw == "SG_" && n >= 7) {
    // Signals belong to the most recently accepted message; before any, they are dropped.
    if (messages_.empty()) return true;
    DBC_SIGNAL& s = scratch.signals.emplace_back();
    parseSignal(tokens, scratch, &s);
    if (s.name.empty()) scratch.signals.pop_back();
    return true;
  }
  if (kw == "BO_" && n >= 4) {
    flushSignals(scratch);
    DBC_MESSAGE& m = messages_.emplace_back();
    const bool complete = parseMessage(tokens, &m);
    if (!complete || m.name.empty()) messages_.pop_back();
    return complete;
  }
  if (kw == "CM_" && n >= 4) {
    flushSignals(scratch);
    return handleComment(tokens, scratch);
  }
  if (kw == "VAL_" && n >= 4) {
    flushSignals(scratch);
    handleValueTable(tokens, scratch);
  } else if (kw == "SIG_VALTYPE_" && n >= 4) {
    flushSignals(scratch);
    handleValueType(tokens, scratch);
  } else if (kw == "BA_DEF_" && n >= 3) {
    return handleAttributeDefinition(tokens);
  } else if (kw == "BA_DEF_DEF_" && n >= 3) {
    handleAttributeDefault(tokens);
  }
  return true;
}

// Signals wait in the scratch list until their message is complete, then move into it at
// their exact count: a message holds no spare room for signals it will never get.
void DBC_Decoder::flushSignals(Scratch& scratch) {
  if (scratch.signals.empty()) return;
  std::vector<DBC_SIGNAL>& to = messages_.back().signals;
  to.reserve(to.size() + scratch.signals.size());
  for (DBC_SIGNAL& s : scratch.signals) to.push_back(std::move(s));
  scratch.signals.clear();
}

DBC_MESSAGE DBC_Decoder::getMessageValues(std::vector<std::string> tokens) {
  Tokens views = views_of(tokens);
  DBC_MESSAGE m;
  if (!parseMessage(views, &m)) missing_ = true;
  return m;
}

// Fills *out from a "BO_" line; an empty name leaves it untouched. Returns false when the
// line lacks its sender.
bool DBC_Decoder::parseMessage(Tokens& tokens, DBC_MESSAGE* out) {
  if (tokens.size() < 4) return false;
  // Every id of 2048 and more is taken as extended, whether or not the file set bit 31.
  const uint32_t id = read_id(tokens[1]);
  const uint32_t stored = id < 2048 ? id : (id | 0x80000000u);
  const std::string_view name = tokens[2];
  if (!contains(name, ':')) {
    if (contains(tokens[3], ':')) tokens.erase(tokens.begin() + 3);  // "BO_ 1 Name : 8 Node"
  }
  std::string bare = without(name, ':');
  if (bare.empty()) return true;
  if (tokens.size() < 5) return false;  // the sender is required
  out->name = std::move(bare);
  out->id = stored;
  out->dlc = uint8_t(read_unsigned_auto(tokens[3]));
  out->sender = std::string(tokens[4]);
  out->enable = 1;
  out->cycleTime = 10;
  return true;
}

DBC_SIGNAL DBC_Decoder::getSignalValues(std::vector<std::string> tokens) {
  Tokens views = views_of(tokens);
  Scratch scratch;
  DBC_SIGNAL s;
  parseSignal(views, scratch, &s);
  return s;
}

// Fills *out (a fresh record) from a "SG_" line; a line it cannot use leaves the name empty.
void DBC_Decoder::parseSignal(Tokens& tokens, Scratch& scratch, DBC_SIGNAL* out) {
  DBC_SIGNAL& s = *out;
  if (tokens.size() < 7 || tokens[0] != "SG_") return;
  s.name = without(tokens[1], ':');
  if (s.name.empty()) return;

  // "SG_ Name : ..." / "SG_ Name M : ..." / "SG_ Name m3 : ...": the colon may stand alone
  // after the multiplex token; the layout token is then the fourth either way.
  const std::string_view mux = tokens[2];
  if (!contains(mux, ':') && contains(tokens[3], ':')) tokens.erase(tokens.begin() + 3);
  if (contains(mux, 'M')) {  // "m3M" (a switch that is itself multiplexed) counts as switch
    s.multiplexMode = MUX_SWITCH;
  } else if (contains(mux, 'm')) {
    s.multiplexMode = MUX_SELECTED;
    std::string& number = scratch.text;
    number.clear();
    for (char c : mux) {
      if (c != ':' && c != 'm') number += c;
    }
    s.multiplexValue = uint16_t(read_unsigned_auto(number));
  }

  std::string& layout = scratch.text;
  layout.assign(tokens[3]);
  for (char& c : layout) {
    if (c == '|' || c == '@') c = ' ';
  }
  Tokens& parts = scratch.parts;
  split_views(layout, ' ', parts);
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

  std::string& scale = scratch.text;
  scale.clear();
  for (char c : tokens[4]) {
    if (c != '(' && c != ')') scale += c;
  }
  split_pieces(scale, ',', parts);
  if (parts.size() >= 2) {
    s.factor = read_double(parts[0]);
    s.offset = read_double(parts[1]);
  }

  std::string& range = scratch.text;
  range.clear();
  for (char c : tokens[5]) {
    if (c != '[' && c != ']') range += c;
  }
  split_pieces(range, '|', parts);
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
      s.unit = without(tokens[i], '"');
      break;
    }
    if (quotes == 1) {
      append_without(s.unit, tokens[i], '"');
      for (size_t j = i + 1; j < tokens.size(); ++j) {
        s.unit += ' ';
        append_without(s.unit, tokens[j], '"');
        if (GetDoubleQuoteNum(tokens[j]) == 1) break;
      }
      break;
    }
  }

  const std::string_view listed = tokens.back();
  auto known = scratch.receiverLists.find(listed);
  if (known == scratch.receiverLists.end()) {
    split_pieces(listed, ',', parts);
    known = scratch.receiverLists.emplace(listed, NameList(parts)).first;
  }
  s.receivers = known->second;
}

void DBC_Decoder::appendSignalValues(std::vector<std::string> tokens, DBC_MESSAGE* message) {
  if (!message) return;
  DBC_SIGNAL s = getSignalValues(std::move(tokens));
  if (!s.name.empty()) message->signals.push_back(std::move(s));
}

ValueTable DBC_Decoder::getValueTable(std::string_view text) {
  std::vector<std::pair<int32_t, std::string_view>> assigned;
  std::string joined;  // a number written with spaces inside, which are skipped
  size_t i = 0;
  while (i < text.size()) {
    const size_t open = text.find('"', i);
    if (open == std::string_view::npos) break;
    // The number is every character before the quote except spaces.
    std::string_view number = text.substr(i, open - i);
    const size_t from = number.find_first_not_of(' ');
    number = from == std::string_view::npos
                 ? std::string_view()
                 : number.substr(from, number.find_last_not_of(' ') - from + 1);
    if (contains(number, ' ')) {
      joined.clear();
      append_without(joined, number, ' ');
      number = joined;
    }
    const size_t close = text.find('"', open + 1);
    if (close == std::string_view::npos) break;  // an unterminated pair is dropped
    assigned.emplace_back(int32_t(read_unsigned_auto(number)),
                          text.substr(open + 1, close - open - 1));
    i = close + 1;
  }
  return ValueTable(std::move(assigned));
}

bool DBC_Decoder::handleComment(const Tokens& tokens, Scratch& scratch) {
  const std::string_view object = tokens[1];
  if (object == "BO_") {
    const auto [first, last] = messagesWithId(read_id(tokens[2]), scratch);
    if (first != last) messages_[first->second].comment = comment_from(tokens, 3, scratch.text);
  } else if (object == "SG_") {
    const std::string_view name = tokens[3];
    const auto [first, last] = messagesWithId(read_id(tokens[2]), scratch);
    for (auto at = first; at != last; ++at) {
      DBC_SIGNAL* s = first_signal(messages_[at->second], name);
      if (!s) continue;
      if (tokens.size() < 5) return false;  // a signal comment without text
      s->comment = comment_from(tokens, 4, scratch.text);
    }
  }
  // Node and network comments are not kept. A comment continued on further lines keeps
  // its first line only; the next lines are read as ordinary lines.
  return true;
}

void DBC_Decoder::handleValueTable(const Tokens& tokens, Scratch& scratch) {
  const uint32_t id = read_id(tokens[1]);
  const std::string_view name = tokens[2];
  DBC_SIGNAL* previous = nullptr;  // the table is parsed once and moved into the last one
  ValueTable table;
  const auto [first, last] = messagesWithId(id, scratch);
  for (auto at = first; at != last; ++at) {
    DBC_SIGNAL* s = first_signal(messages_[at->second], name);
    if (!s) continue;
    if (!previous) table = getValueTable(joined_from(tokens, 3, scratch.text));
    if (previous) previous->valueTable = table;
    previous = s;
  }
  if (previous) previous->valueTable = std::move(table);
}

void DBC_Decoder::handleValueType(const Tokens& tokens, Scratch& scratch) {
  const uint32_t id = read_id(tokens[1]);
  std::string& text = scratch.text;
  text.clear();
  for (size_t i = 2; i < tokens.size(); ++i) append_without(text, tokens[i], ';');
  Tokens& parts = scratch.parts;
  split_pieces(text, ':', parts);
  if (parts.size() < 2) return;
  const auto [first, last] = messagesWithId(id, scratch);
  if (first == last) return;
  DBC_SIGNAL* s = first_signal(messages_[first->second], parts[0]);
  if (s) setValueType(unsigned(read_unsigned_auto(parts[1])), s);
}

std::pair<const std::pair<uint32_t, uint32_t>*, const std::pair<uint32_t, uint32_t>*>
DBC_Decoder::messagesWithId(uint32_t id, Scratch& scratch) {
  auto& table = scratch.byId;
  if (scratch.byIdMessages != messages_.size() || table.size() != messages_.size()) {
    // Ids of messages already read never change during the first pass, so the table only
    // needs rebuilding after a new message; files declare their messages first.
    table.clear();
    table.reserve(messages_.size());
    for (uint32_t i = 0; i < messages_.size(); ++i) table.emplace_back(messages_[i].id, i);
    std::sort(table.begin(), table.end());  // by id, then by position: file order
    scratch.byIdMessages = messages_.size();
  }
  const auto range =
      std::equal_range(table.begin(), table.end(), std::pair<uint32_t, uint32_t>{id, 0},
                       [](const auto& a, const auto& b) { return a.first < b.first; });
  return {table.data() + (range.first - table.begin()),
          table.data() + (range.second - table.begin())};
}

}  // namespace veltrix::dbc
