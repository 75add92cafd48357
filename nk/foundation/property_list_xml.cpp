// The XML property-list form: a strict reader and a writer.
//
// The reader is a small XML scanner for the plist vocabulary. It keeps its own
// stack instead of recursing, refuses malformed values instead of guessing one
// (an empty integer, bad Base64, a key without a value), and refuses anything
// after the root element but white space, comments and processing instructions.
#include <plist/plist.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/data_internal.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/date_internal.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list_internal.hpp"

namespace nk::plist_internal {

namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool isNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == ':' || c == '-' || c == '.' || static_cast<unsigned char>(c) >= 0x80;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

void appendUTF8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xc0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xe0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  } else {
    out.push_back(static_cast<char>(0xf0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3f)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3f)));
  }
}

// Integers: optional sign, decimal or 0x-prefixed hexadecimal, within
// [INT64_MIN, UINT64_MAX]. Values above INT64_MAX are unsigned ('Q').
Id parseInteger(std::string_view text) {
  text = trim(text);
  bool negative = false;
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty()) return nullptr;
  uint64_t magnitude = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (ec != std::errc() || end != text.data() + text.size()) return nullptr;
  if (!negative) {
    return magnitude > INT64_MAX ? Number::withUnsignedLongLong(magnitude)
                                 : Number::withLongLong(static_cast<long long>(magnitude));
  }
  if (magnitude > uint64_t{1} << 63) return nullptr;
  return Number::withLongLong(static_cast<long long>(0 - magnitude));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char c = a[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != b[i]) return false;
  }
  return true;
}

// Reals: decimal or exponent notation, "nan", "inf"/"infinity" with an optional sign.
Id parseReal(std::string_view text) {
  text = trim(text);
  bool negative = false;
  std::string_view body = text;
  if (!body.empty() && (body.front() == '-' || body.front() == '+')) {
    negative = body.front() == '-';
    body.remove_prefix(1);
  }
  if (equalsIgnoringCase(body, "nan")) return Number::withDouble(std::nan(""));
  if (equalsIgnoringCase(body, "inf") || equalsIgnoringCase(body, "infinity")) {
    return Number::withDouble(negative ? -HUGE_VAL : HUGE_VAL);
  }
  if (body.empty() || body.front() == '-' || body.front() == '+') return nullptr;
  double value = 0;
  const auto [end, ec] =
      std::from_chars(body.data(), body.data() + body.size(), value, std::chars_format::general);
  if (end != body.data() + body.size()) return nullptr;
  if (ec == std::errc::result_out_of_range) {
    // Too small rounds to zero, too large to infinity, as strtod does.
    const size_t e = body.find_first_of("eE");
    const bool tiny = e != std::string_view::npos
                          ? (e + 1 < body.size() && body[e + 1] == '-')
                          : body.find_first_of("123456789") > body.find('.');
    value = tiny ? 0.0 : HUGE_VAL;
  } else if (ec != std::errc()) {
    return nullptr;
  }
  return Number::withDouble(negative ? -value : value);
}

// Dates: [-]YYYY-MM-DDTHH:MM:SS[.fraction]Z, proleptic Gregorian, UTC.
Id parseDate(std::string_view text) {
  text = trim(text);
  size_t i = 0;
  auto number = [&](size_t minDigits, size_t maxDigits, int64_t& out) {
    const size_t start = i;
    out = 0;
    while (i < text.size() && i - start < maxDigits && text[i] >= '0' && text[i] <= '9') {
      out = out * 10 + (text[i++] - '0');
    }
    return i - start >= minDigits;
  };
  auto expect = [&](char c) {
    if (i >= text.size() || text[i] != c) return false;
    ++i;
    return true;
  };
  const bool negative = expect('-');
  int64_t year, month, day, hour, minute, second;
  if (!number(1, 7, year) || !expect('-') || !number(2, 2, month) || !expect('-') ||
      !number(2, 2, day) || !expect('T') || !number(2, 2, hour) || !expect(':') ||
      !number(2, 2, minute) || !expect(':') || !number(2, 2, second)) {
    return nullptr;
  }
  double fraction = 0;
  if (i < text.size() && text[i] == '.') {
    ++i;
    double scale = 0.1;
    const size_t start = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
      fraction += (text[i++] - '0') * scale;
      scale /= 10;
    }
    if (i == start) return nullptr;
  }
  if (!expect('Z') || i != text.size()) return nullptr;
  const auto seconds = date_internal::secondsFromCivil(date_internal::CivilTime{
      negative ? -year : year, static_cast<int>(month), static_cast<int>(day),
      static_cast<int>(hour), static_cast<int>(minute), static_cast<int>(second)});
  if (!seconds) return nullptr;
  return Date::fromTimeIntervalSinceReferenceDate(*seconds + fraction);
}

class XMLReader {
 public:
  XMLReader(std::span<const uint8_t> text, std::string& reason)
      : s_(reinterpret_cast<const char*>(text.data()), text.size()), reason_(reason) {}

  Id read();

 private:
  enum class Element { kPlist, kArray, kDict };
  struct Frame {
    Element element;
    std::vector<Id> items;  // dictionaries: key, value, key, value...
    bool keyPending = false;
    uint32_t height = 0;  // greatest height among the children
  };
  struct Tag {
    std::string_view name;
    bool empty = false;  // <name/>
    size_t at = 0;
  };

  bool fail(std::string why, size_t at) {
    size_t line = 1;
    for (size_t i = 0; i < at && i < s_.size(); ++i) line += s_[i] == '\n';
    reason_ = std::move(why) + " on line " + std::to_string(line);
    return false;
  }
  bool startsWith(std::string_view prefix) const { return s_.substr(pos_).starts_with(prefix); }
  bool skipPast(std::string_view terminator, const char* what);
  bool skipDoctype();
  // Skips white space, comments and processing instructions; other text is an
  // error, and markup is left for the caller.
  bool skipMisc();
  bool startTag(Tag& tag);
  bool endTag(std::string_view name);
  bool text(const Tag& tag, std::string& out);
  bool entity(std::string& out);
  bool value(const Tag& tag, std::vector<Frame>& stack);
  bool deliver(Id value, uint32_t height, std::vector<Frame>& stack, size_t at);
  bool close(std::vector<Frame>& stack, size_t at);

  std::string_view s_;
  size_t pos_ = 0;
  std::string& reason_;
  Id root_;
  size_t containers_ = 0;  // array and dict frames on the stack
};

bool XMLReader::skipPast(std::string_view terminator, const char* what) {
  const size_t at = pos_;
  const size_t end = s_.find(terminator, pos_);
  if (end == std::string_view::npos) return fail(std::string("Unterminated ") + what, at);
  pos_ = end + terminator.size();
  return true;
}

bool XMLReader::skipDoctype() {
  const size_t at = pos_;
  int brackets = 0;
  for (pos_ += 2; pos_ < s_.size(); ++pos_) {
    const char c = s_[pos_];
    if (c == '"' || c == '\'') {
      const size_t close = s_.find(c, pos_ + 1);
      if (close == std::string_view::npos) break;
      pos_ = close;
    } else if (c == '[') {
      ++brackets;
    } else if (c == ']') {
      --brackets;
    } else if (c == '>' && brackets <= 0) {
      ++pos_;
      return true;
    }
  }
  return fail("Unterminated document type declaration", at);
}

bool XMLReader::skipMisc() {
  while (pos_ < s_.size()) {
    if (isSpace(s_[pos_])) {
      ++pos_;
    } else if (startsWith("<!--")) {
      if (!skipPast("-->", "comment")) return false;
    } else if (startsWith("<?")) {
      if (!skipPast("?>", "processing instruction")) return false;
    } else if (s_[pos_] != '<') {
      return fail(
          "Encountered unexpected character " + describeByte(static_cast<uint8_t>(s_[pos_])), pos_);
    } else {
      return true;
    }
  }
  return true;
}

bool XMLReader::startTag(Tag& tag) {
  tag = Tag{};
  tag.at = pos_;
  ++pos_;  // '<'
  const size_t start = pos_;
  while (pos_ < s_.size() && isNameChar(s_[pos_])) ++pos_;
  tag.name = s_.substr(start, pos_ - start);
  if (tag.name.empty()) return fail("Malformed tag", tag.at);
  // Attributes are read past and ignored.
  while (true) {
    while (pos_ < s_.size() && isSpace(s_[pos_])) ++pos_;
    if (pos_ >= s_.size()) return fail("Unterminated tag <" + std::string(tag.name) + ">", tag.at);
    if (s_[pos_] == '>') {
      ++pos_;
      return true;
    }
    if (s_[pos_] == '/' && pos_ + 1 < s_.size() && s_[pos_ + 1] == '>') {
      pos_ += 2;
      tag.empty = true;
      return true;
    }
    const size_t nameStart = pos_;
    while (pos_ < s_.size() && isNameChar(s_[pos_])) ++pos_;
    if (pos_ == nameStart)
      return fail("Malformed attribute in <" + std::string(tag.name) + ">", pos_);
    while (pos_ < s_.size() && isSpace(s_[pos_])) ++pos_;
    if (pos_ >= s_.size() || s_[pos_] != '=') {
      return fail("Malformed attribute in <" + std::string(tag.name) + ">", pos_);
    }
    ++pos_;
    while (pos_ < s_.size() && isSpace(s_[pos_])) ++pos_;
    if (pos_ >= s_.size() || (s_[pos_] != '"' && s_[pos_] != '\'')) {
      return fail("Malformed attribute in <" + std::string(tag.name) + ">", pos_);
    }
    const size_t close = s_.find(s_[pos_], pos_ + 1);
    if (close == std::string_view::npos) {
      return fail("Unterminated attribute in <" + std::string(tag.name) + ">", pos_);
    }
    pos_ = close + 1;
  }
}

bool XMLReader::endTag(std::string_view name) {
  const size_t at = pos_;
  pos_ += 2;  // "</"
  const size_t start = pos_;
  while (pos_ < s_.size() && isNameChar(s_[pos_])) ++pos_;
  const std::string_view found = s_.substr(start, pos_ - start);
  while (pos_ < s_.size() && isSpace(s_[pos_])) ++pos_;
  if (pos_ >= s_.size() || s_[pos_] != '>') return fail("Malformed closing tag", at);
  ++pos_;
  if (found != name) {
    return fail("Encountered mismatched closing tag </" + std::string(found) + "> for <" +
                    std::string(name) + ">",
                at);
  }
  return true;
}

bool XMLReader::entity(std::string& out) {
  const size_t at = pos_;
  const size_t semi = s_.find(';', pos_);
  if (semi == std::string_view::npos || semi - pos_ > 12) return fail("Malformed entity", at);
  const std::string_view name = s_.substr(pos_ + 1, semi - pos_ - 1);
  pos_ = semi + 1;
  if (name == "lt") {
    out.push_back('<');
  } else if (name == "gt") {
    out.push_back('>');
  } else if (name == "amp") {
    out.push_back('&');
  } else if (name == "quot") {
    out.push_back('"');
  } else if (name == "apos") {
    out.push_back('\'');
  } else if (name.size() > 1 && name[0] == '#') {
    const bool hex = name[1] == 'x';
    const std::string_view digits = name.substr(hex ? 2 : 1);
    uint32_t cp = 0;
    const auto [end, ec] =
        std::from_chars(digits.data(), digits.data() + digits.size(), cp, hex ? 16 : 10);
    if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size() || cp == 0 ||
        cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) {
      return fail("Invalid character reference &" + std::string(name) + ";", at);
    }
    appendUTF8(out, cp);
  } else {
    return fail("Unknown entity &" + std::string(name) + ";", at);
  }
  return true;
}

// The character content of <tag>…</tag>: text, entities and CDATA sections,
// with comments dropped; any element inside is an error.
bool XMLReader::text(const Tag& tag, std::string& out) {
  out.clear();
  if (tag.empty) return true;
  while (true) {
    const size_t next = s_.find_first_of("<&", pos_);
    if (next == std::string_view::npos) {
      return fail("Encountered unexpected end of input inside <" + std::string(tag.name) + ">",
                  tag.at);
    }
    out.append(s_.substr(pos_, next - pos_));
    pos_ = next;
    if (s_[pos_] == '&') {
      if (!entity(out)) return false;
    } else if (startsWith("</")) {
      return endTag(tag.name);
    } else if (startsWith("<!--")) {
      if (!skipPast("-->", "comment")) return false;
    } else if (startsWith("<![CDATA[")) {
      const size_t start = pos_ + 9;
      if (!skipPast("]]>", "CDATA section")) return false;
      out.append(s_.substr(start, pos_ - 3 - start));
    } else {
      return fail("Encountered unexpected element inside <" + std::string(tag.name) + ">", pos_);
    }
  }
}

bool XMLReader::deliver(Id value, uint32_t height, std::vector<Frame>& stack, size_t at) {
  if (stack.empty()) {
    root_ = std::move(value);
    return true;
  }
  Frame& frame = stack.back();
  if (frame.element == Element::kPlist && !frame.items.empty()) {
    return fail("Encountered a second value inside <plist>", at);
  }
  if (frame.element == Element::kDict) {
    if (!frame.keyPending) return fail("Found non-key inside <dict>", at);
    frame.keyPending = false;
  }
  frame.items.push_back(std::move(value));
  frame.height = std::max(frame.height, height);
  return true;
}

// Ends the innermost frame at its closing tag and hands its value to the parent.
bool XMLReader::close(std::vector<Frame>& stack, size_t at) {
  Frame frame = std::move(stack.back());
  stack.pop_back();
  if (frame.element == Element::kPlist) {
    if (frame.items.empty()) return fail("Encountered empty <plist>", at);
    return deliver(std::move(frame.items.front()), frame.height, stack, at);
  }
  --containers_;
  const uint32_t height = frame.height + 1;
  if (height > kPropertyListMaxDepth) {
    return fail(
        "Containers are nested more than " + std::to_string(kPropertyListMaxDepth) + " levels deep",
        at);
  }
  if (frame.element == Element::kArray) {
    return deliver(Array::make(std::move(frame.items)), height, stack, at);
  }
  if (frame.keyPending) return fail("Value missing for key inside <dict>", at);
  // {CF$UID = n} is how XML spells a UID.
  if (frame.items.size() == 2) {
    const auto* key = cast<String>(frame.items[0].get());
    const auto* number = cast<Number>(frame.items[1].get());
    if (key->isEqualToString(NK_STR("CF$UID")) && number && !number->isBoolean() &&
        !number->isFloatingPoint() && number->compare(*Number::withInt(0)) >= 0) {
      return deliver(PlistUID::make(number->unsignedLongLongValue()), 0, stack, at);
    }
  }
  std::vector<std::pair<Id, Id>> entries;
  entries.reserve(frame.items.size() / 2);
  for (size_t i = 0; i + 1 < frame.items.size(); i += 2) {
    entries.emplace_back(std::move(frame.items[i]), std::move(frame.items[i + 1]));
  }
  return deliver(Dictionary::make(entries), height, stack, at);
}

// Reads the value that `tag` opens: a scalar whole, a container's opening.
bool XMLReader::value(const Tag& tag, std::vector<Frame>& stack) {
  const std::string_view name = tag.name;
  if (name == "array" || name == "dict") {
    const bool isArray = name == "array";
    if (tag.empty) {
      Id empty = isArray ? Id(Array::make()) : Id(Dictionary::make());
      return deliver(std::move(empty), 1, stack, tag.at);
    }
    if (containers_ > kPropertyListMaxDepth) {
      return fail("Containers are nested more than " + std::to_string(kPropertyListMaxDepth) +
                      " levels deep",
                  tag.at);
    }
    ++containers_;
    stack.push_back(Frame{isArray ? Element::kArray : Element::kDict, {}, false, 0});
    return true;
  }
  std::string content;
  if (name == "true" || name == "false") {
    if (!text(tag, content)) return false;
    if (!trim(content).empty())
      return fail("Encountered text inside <" + std::string(name) + ">", tag.at);
    return deliver(Number::withBool(name == "true"), 0, stack, tag.at);
  }
  if (name == "key") return fail("Encountered <key> outside a <dict>", tag.at);
  if (name == "plist") return fail("Encountered <plist> inside a property list", tag.at);
  if (name != "string" && name != "integer" && name != "real" && name != "date" && name != "data") {
    return fail("Encountered unknown tag <" + std::string(name) + ">", tag.at);
  }
  if (!text(tag, content)) return false;
  Id result;
  if (name == "string") {
    result = String::fromUTF8(content);
    if (!result) return fail("Malformed UTF-8 inside <string>", tag.at);
  } else if (name == "integer") {
    result = parseInteger(content);
    if (!result) return fail("Malformed or out-of-range <integer>", tag.at);
  } else if (name == "real") {
    result = parseReal(content);
    if (!result) return fail("Malformed <real>", tag.at);
  } else if (name == "date") {
    result = parseDate(content);
    if (!result) return fail("Malformed <date>", tag.at);
  } else {
    std::vector<uint8_t> bytes;
    if (!data_internal::decodeBase64(
            content, data_internal::kBase64SkipWhitespace | data_internal::kBase64AllowUnpadded,
            bytes)) {
      return fail("Malformed Base64 inside <data>", tag.at);
    }
    result = Data::fromVector(std::move(bytes));
  }
  return deliver(std::move(result), 0, stack, tag.at);
}

Id XMLReader::read() {
  // The prolog: declaration, comments, processing instructions, document type.
  while (true) {
    if (!skipMisc()) return nullptr;
    if (startsWith("<!DOCTYPE")) {
      if (!skipDoctype()) return nullptr;
      continue;
    }
    break;
  }
  if (pos_ >= s_.size()) {
    fail("No root element", pos_);
    return nullptr;
  }
  if (startsWith("</") || startsWith("<!")) {
    fail("Encountered unexpected markup before the root element", pos_);
    return nullptr;
  }

  std::vector<Frame> stack;
  Tag tag;
  if (!startTag(tag)) return nullptr;
  if (tag.name == "plist") {
    if (tag.empty) {
      fail("Encountered empty <plist>", tag.at);
      return nullptr;
    }
    stack.push_back(Frame{Element::kPlist, {}, false, 0});
  } else if (!value(tag, stack)) {
    return nullptr;
  }

  while (!stack.empty()) {
    if (!skipMisc()) return nullptr;
    Frame& frame = stack.back();
    const char* open = frame.element == Element::kPlist   ? "plist"
                       : frame.element == Element::kArray ? "array"
                                                          : "dict";
    if (pos_ >= s_.size()) {
      fail(std::string("Encountered unexpected end of input inside <") + open + ">", pos_);
      return nullptr;
    }
    if (startsWith("</")) {
      const size_t at = pos_;
      if (!endTag(open) || !close(stack, at)) return nullptr;
      continue;
    }
    if (startsWith("<!")) {
      fail("Encountered unexpected markup", pos_);
      return nullptr;
    }
    if (!startTag(tag)) return nullptr;
    if (frame.element == Element::kDict && !frame.keyPending) {
      if (tag.name != "key") {
        fail("Found non-key inside <dict>", tag.at);
        return nullptr;
      }
      std::string key;
      if (!text(tag, key)) return nullptr;
      Ref<String> keyString = String::fromUTF8(key);
      if (!keyString) {
        fail("Malformed UTF-8 inside <key>", tag.at);
        return nullptr;
      }
      frame.items.push_back(std::move(keyString));
      frame.keyPending = true;
      continue;
    }
    if (frame.element == Element::kDict && tag.name == "key") {
      fail("Value missing for key inside <dict>", tag.at);
      return nullptr;
    }
    if (!value(tag, stack)) return nullptr;
  }

  // Only white space, comments and processing instructions may follow.
  if (!skipMisc()) {
    reason_ = "Junk after the root element: " + reason_;
    return nullptr;
  }
  if (pos_ < s_.size()) {
    fail("Encountered markup after the root element", pos_);
    return nullptr;
  }
  return root_;
}

// The prolog and opening <plist> line every reader expects, taken from
// libplist's writer so that it is written down in one place.
const std::string& prolog() {
  static const std::string text = [] {
    std::string result = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    plist_t node = plist_new_bool(1);
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    if (xml) {
      const std::string_view all(xml, length);
      const size_t plist = all.find("<plist");
      const size_t eol = plist == std::string_view::npos ? plist : all.find('\n', plist);
      if (eol != std::string_view::npos) result = std::string(all.substr(0, eol + 1));
      plist_to_xml_free(xml);
    }
    plist_free(node);
    return result;
  }();
  return text;
}

class XMLWriter {
 public:
  explicit XMLWriter(const Graph& graph) : graph_(graph) {}

  std::string run() {
    out_ = prolog();
    write(0, 0);
    out_ += "</plist>\n";
    return std::move(out_);
  }

 private:
  void indent(size_t depth) { out_.append(depth, '\t'); }

  void escaped(const String* s) {
    std::string utf8;
    (void)s->toUTF8(utf8);  // flatten() refused unpaired surrogates
    for (char c : utf8) {
      switch (c) {
        case '&':
          out_ += "&amp;";
          break;
        case '<':
          out_ += "&lt;";
          break;
        case '>':
          out_ += "&gt;";
          break;
        case '\r':
          out_ += "&#13;";  // a raw CR would be read back as LF by XML readers
          break;
        default:
          out_.push_back(c);
      }
    }
  }

  void integer(const Number* n) {
    char buf[32];
    const char code = n->objCType();
    const bool isUnsigned = code == 'C' || code == 'S' || code == 'I' || code == 'L' || code == 'Q';
    const auto r = isUnsigned ? std::to_chars(buf, buf + sizeof buf, n->unsignedLongLongValue())
                              : std::to_chars(buf, buf + sizeof buf, n->longLongValue());
    out_.append(buf, r.ptr);
  }

  void real(double d) {
    if (std::isnan(d)) {
      out_ += "nan";
    } else if (std::isinf(d)) {
      out_ += d > 0 ? "+infinity" : "-infinity";
    } else {
      char buf[64];
      const auto r = std::to_chars(buf, buf + sizeof buf, d);
      out_.append(buf, r.ptr);
    }
  }

  void date(double seconds) {
    const auto t = date_internal::civilFromSeconds(seconds, date_internal::Calendar::kGregorian);
    char buf[64];
    const int n =
        std::snprintf(buf, sizeof buf, "%s%04lld-%02d-%02dT%02d:%02d:%02dZ", t.year < 0 ? "-" : "",
                      static_cast<long long>(t.year < 0 ? -t.year : t.year), t.month, t.day, t.hour,
                      t.minute, t.second);
    out_.append(buf, static_cast<size_t>(n));
  }

  void write(uint32_t index, size_t depth) {
    const Node& node = graph_.nodes[index];
    indent(depth);
    switch (node.kind) {
      case Kind::kString:
        out_ += "<string>";
        escaped(static_cast<const String*>(node.object));
        out_ += "</string>\n";
        break;
      case Kind::kInteger:
        out_ += "<integer>";
        integer(static_cast<const Number*>(node.object));
        out_ += "</integer>\n";
        break;
      case Kind::kReal:
        out_ += "<real>";
        real(static_cast<const Number*>(node.object)->doubleValue());
        out_ += "</real>\n";
        break;
      case Kind::kBoolean:
        out_ += static_cast<const Number*>(node.object)->boolValue() ? "<true/>\n" : "<false/>\n";
        break;
      case Kind::kDate:
        out_ += "<date>";
        date(static_cast<const Date*>(node.object)->timeIntervalSinceReferenceDate());
        out_ += "</date>\n";
        break;
      case Kind::kData: {
        const std::string text =
            data_internal::encodeBase64(static_cast<const Data*>(node.object)->span());
        out_ += "<data>\n";
        for (size_t i = 0; i < text.size(); i += 76) {
          indent(depth);
          out_.append(text, i, 76);
          out_.push_back('\n');
        }
        indent(depth);
        out_ += "</data>\n";
        break;
      }
      case Kind::kUID: {
        char buf[32];
        const auto r = std::to_chars(buf, buf + sizeof buf,
                                     static_cast<const PlistUID*>(node.object)->value());
        out_ += "<dict>\n";
        indent(depth + 1);
        out_ += "<key>CF$UID</key>\n";
        indent(depth + 1);
        out_ += "<integer>";
        out_.append(buf, r.ptr);
        out_ += "</integer>\n";
        indent(depth);
        out_ += "</dict>\n";
        break;
      }
      case Kind::kArray:
        if (node.children.empty()) {
          out_ += "<array/>\n";
          break;
        }
        out_ += "<array>\n";
        for (uint32_t child : node.children) write(child, depth + 1);
        indent(depth);
        out_ += "</array>\n";
        break;
      case Kind::kDictionary: {
        if (node.children.empty()) {
          out_ += "<dict/>\n";
          break;
        }
        out_ += "<dict>\n";
        const size_t n = node.children.size() / 2;
        for (size_t i = 0; i < n; ++i) {
          indent(depth + 1);
          out_ += "<key>";
          escaped(static_cast<const String*>(graph_.nodes[node.children[i]].object));
          out_ += "</key>\n";
          write(node.children[n + i], depth + 1);
        }
        indent(depth);
        out_ += "</dict>\n";
        break;
      }
      case Kind::kSet:
        break;  // flatten() refuses sets for XML
    }
  }

  const Graph& graph_;
  std::string out_;
};

}  // namespace

Id readXML(std::span<const uint8_t> text, std::string& reason) {
  return XMLReader(text, reason).read();
}

std::vector<uint8_t> writeXML(const Graph& graph) {
  const std::string text = XMLWriter(graph).run();
  return std::vector<uint8_t>(text.begin(), text.end());
}

}  // namespace nk::plist_internal
