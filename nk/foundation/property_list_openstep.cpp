// The OpenStep (old-style) text form, read only: { key = value; }, ( a, b ),
// <0fbd77>, "quoted" and bare strings, comments, and the brace-less dictionary
// of strings files ("key" = "value";). Every scalar is a string.
#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/property_list_internal.hpp"

namespace nk::plist_internal {

namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

class OpenStepReader {
 public:
  OpenStepReader(std::span<const uint8_t> text, std::string& reason)
      : s_(reinterpret_cast<const char*>(text.data()), text.size()), reason_(reason) {}

  Id read();

 private:
  enum class Kind { kArray, kDict, kStringsFile };
  // Arrays: 0 wants a value or ')', 1 wants ',' or ')'. Dictionaries: 0 wants a
  // key or the end, 1 wants '=' or ';', 2 wants a value, 3 wants ';'.
  struct Frame {
    Kind kind;
    std::vector<Id> items;  // dictionaries: key, value, key, value...
    int stage = 0;
    uint32_t height = 0;
  };

  bool fail(std::string why, size_t at) {
    size_t line = 1;
    for (size_t i = 0; i < at && i < s_.size(); ++i) line += s_[i] == '\n';
    reason_ = "Old-style property list: " + std::move(why) + " on line " + std::to_string(line);
    return false;
  }
  bool atEnd() const { return pos_ >= s_.size(); }
  bool skip();
  static bool isBare(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '$' || c == '/' || c == ':' || c == '.' || c == '-';
  }
  bool isStringStart() const { return !atEnd() && (s_[pos_] == '"' || isBare(s_[pos_])); }
  Ref<String> string();
  Ref<Data> data();
  // Reads the value starting here: a scalar is delivered, a container pushed.
  bool value(std::vector<Frame>& stack);
  bool deliver(Id value, uint32_t height, std::vector<Frame>& stack);
  bool close(std::vector<Frame>& stack);
  bool run(std::vector<Frame>& stack);

  std::string_view s_;
  size_t pos_ = 0;
  std::string& reason_;
  Id root_;
  uint32_t rootHeight_ = 0;
};

bool OpenStepReader::skip() {
  while (!atEnd()) {
    if (isSpace(s_[pos_])) {
      ++pos_;
    } else if (s_.substr(pos_).starts_with("//")) {
      const size_t eol = s_.find('\n', pos_);
      pos_ = eol == std::string_view::npos ? s_.size() : eol + 1;
    } else if (s_.substr(pos_).starts_with("/*")) {
      const size_t end = s_.find("*/", pos_ + 2);
      if (end == std::string_view::npos) return fail("Unterminated comment", pos_);
      pos_ = end + 2;
    } else {
      break;
    }
  }
  return true;
}

Ref<String> OpenStepReader::string() {
  const size_t at = pos_;
  if (s_[pos_] != '"') {
    const size_t start = pos_;
    while (!atEnd() && isBare(s_[pos_])) ++pos_;
    return String::fromLatin1(s_.substr(start, pos_ - start));  // bare text is ASCII
  }
  ++pos_;
  std::u16string units;
  size_t run = pos_;  // start of raw text not yet decoded
  auto flush = [&](size_t end) {
    if (end == run) return true;
    Ref<String> raw = String::fromUTF8(s_.substr(run, end - run));
    if (!raw) return fail("Malformed UTF-8 in a quoted string", run);
    units += raw->toUTF16();
    return true;
  };
  while (true) {
    if (atEnd()) {
      fail("Unterminated quoted string", at);
      return nullptr;
    }
    const char c = s_[pos_];
    if (c == '"') {
      if (!flush(pos_)) return nullptr;
      ++pos_;
      return String::withCharacters(units);
    }
    if (c != '\\') {
      ++pos_;
      continue;
    }
    if (!flush(pos_)) return nullptr;
    if (++pos_ >= s_.size()) {
      fail("Unterminated quoted string", at);
      return nullptr;
    }
    const char e = s_[pos_++];
    switch (e) {
      case 'a':
        units.push_back(u'\a');
        break;
      case 'b':
        units.push_back(u'\b');
        break;
      case 'f':
        units.push_back(u'\f');
        break;
      case 'n':
        units.push_back(u'\n');
        break;
      case 'r':
        units.push_back(u'\r');
        break;
      case 't':
        units.push_back(u'\t');
        break;
      case 'v':
        units.push_back(u'\v');
        break;
      case 'U':
      case 'u': {
        // One to four hexadecimal digits: a UTF-16 code unit.
        unsigned v = 0;
        int digits = 0;
        while (digits < 4 && !atEnd() && hexValue(s_[pos_]) >= 0) {
          v = v * 16 + static_cast<unsigned>(hexValue(s_[pos_++]));
          ++digits;
        }
        if (digits == 0) {
          fail("\\U without hexadecimal digits", pos_);
          return nullptr;
        }
        units.push_back(static_cast<char16_t>(v));
        break;
      }
      default:
        if (e >= '0' && e <= '7') {
          unsigned v = static_cast<unsigned>(e - '0');
          for (int i = 0; i < 2 && !atEnd() && s_[pos_] >= '0' && s_[pos_] <= '7'; ++i) {
            v = v * 8 + static_cast<unsigned>(s_[pos_++] - '0');
          }
          // Above 0177 the escapes name characters of a legacy 8-bit encoding.
          if (v > 0x7f) {
            fail("Octal escapes above \\177 are not supported", pos_);
            return nullptr;
          }
          units.push_back(static_cast<char16_t>(v));
        } else if (static_cast<unsigned char>(e) >= 0x80) {
          // An escaped non-ASCII character: let the raw run decode all its bytes.
          run = pos_ - 1;
          continue;
        } else {
          units.push_back(static_cast<char16_t>(e));  // \" \\ \' and the like
        }
        break;
    }
    run = pos_;
  }
}

Ref<Data> OpenStepReader::data() {
  const size_t at = pos_++;
  std::vector<uint8_t> bytes;
  int high = -1;
  while (true) {
    if (atEnd()) {
      fail("Unterminated data", at);
      return nullptr;
    }
    const char c = s_[pos_++];
    if (c == '>') break;
    if (isSpace(c)) continue;
    const int v = hexValue(c);
    if (v < 0) {
      fail("Malformed data byte", pos_ - 1);
      return nullptr;
    }
    if (high < 0) {
      high = v;
    } else {
      bytes.push_back(static_cast<uint8_t>(high << 4 | v));
      high = -1;
    }
  }
  if (high >= 0) {
    fail("Data with an odd number of hexadecimal digits", at);
    return nullptr;
  }
  return Data::fromVector(std::move(bytes));
}

bool OpenStepReader::value(std::vector<Frame>& stack) {
  if (atEnd()) return fail("Unexpected end of input where a value was expected", pos_);
  const char c = s_[pos_];
  if (c == '{' || c == '(') {
    if (stack.size() >= kPropertyListMaxDepth) {
      return fail("Containers are nested more than " + std::to_string(kPropertyListMaxDepth) +
                      " levels deep",
                  pos_);
    }
    ++pos_;
    stack.push_back(Frame{c == '{' ? Kind::kDict : Kind::kArray, {}, 0, 0});
    return true;
  }
  Id scalar;
  if (c == '<') {
    scalar = data();
  } else if (isStringStart()) {
    scalar = string();
  } else {
    return fail("Unexpected character " + describeByte(static_cast<uint8_t>(c)), pos_);
  }
  return scalar && deliver(std::move(scalar), 0, stack);
}

bool OpenStepReader::deliver(Id value, uint32_t height, std::vector<Frame>& stack) {
  if (stack.empty()) {
    root_ = std::move(value);
    rootHeight_ = height;
    return true;
  }
  Frame& frame = stack.back();
  frame.items.push_back(std::move(value));
  frame.height = std::max(frame.height, height);
  frame.stage = frame.kind == Kind::kArray ? 1 : 3;
  return true;
}

bool OpenStepReader::close(std::vector<Frame>& stack) {
  Frame frame = std::move(stack.back());
  stack.pop_back();
  const uint32_t height = frame.height + 1;
  if (height > kPropertyListMaxDepth) {
    return fail(
        "Containers are nested more than " + std::to_string(kPropertyListMaxDepth) + " levels deep",
        pos_);
  }
  if (frame.kind == Kind::kArray)
    return deliver(Array::make(std::move(frame.items)), height, stack);
  std::vector<std::pair<Id, Id>> entries;
  entries.reserve(frame.items.size() / 2);
  for (size_t i = 0; i + 1 < frame.items.size(); i += 2) {
    entries.emplace_back(std::move(frame.items[i]), std::move(frame.items[i + 1]));
  }
  return deliver(Dictionary::make(entries), height, stack);
}

bool OpenStepReader::run(std::vector<Frame>& stack) {
  while (!stack.empty()) {
    if (!skip()) return false;
    Frame& frame = stack.back();
    const char c = atEnd() ? '\0' : s_[pos_];
    if (frame.kind == Kind::kArray) {
      if (atEnd()) return fail("Unterminated array", pos_);
      if (c == ')') {
        ++pos_;
        if (!close(stack)) return false;
      } else if (frame.stage == 0) {
        if (!value(stack)) return false;
      } else if (c == ',') {
        ++pos_;
        frame.stage = 0;
      } else {
        return fail("Expected ',' or ')' in an array", pos_);
      }
      continue;
    }
    switch (frame.stage) {
      case 0:
        if (frame.kind == Kind::kStringsFile ? atEnd() : c == '}') {
          if (!atEnd()) ++pos_;
          if (!close(stack)) return false;
        } else if (atEnd()) {
          return fail("Unterminated dictionary", pos_);
        } else if (!isStringStart()) {
          return fail("Dictionary key is not a string", pos_);
        } else {
          Ref<String> key = string();
          if (!key) return false;
          frame.items.push_back(std::move(key));
          frame.stage = 1;
        }
        break;
      case 1:
        if (c == '=') {
          ++pos_;
          frame.stage = 2;
        } else if (c == ';') {
          // "key"; is short for "key" = "key";
          ++pos_;
          Id key = frame.items.back();
          frame.items.push_back(std::move(key));
          frame.stage = 0;
        } else {
          return fail("Expected '=' or ';' after a dictionary key", pos_);
        }
        break;
      case 2:
        if (!value(stack)) return false;
        break;
      default:
        if (c != ';') return fail("Missing ';' in a dictionary", pos_);
        ++pos_;
        frame.stage = 0;
        break;
    }
  }
  return true;
}

Id OpenStepReader::read() {
  std::vector<Frame> stack;
  if (!skip() || !value(stack) || !run(stack) || !skip()) return nullptr;
  // A strings file: a first key followed by '=' or ';' rather than the end.
  if (!atEnd() && cast<String>(root_.get()) && (s_[pos_] == '=' || s_[pos_] == ';')) {
    stack.push_back(Frame{Kind::kStringsFile, {std::move(root_)}, 1, 0});
    if (!run(stack) || !skip()) return nullptr;
  }
  if (!atEnd()) {
    fail("Junk after the property list: " + describeByte(static_cast<uint8_t>(s_[pos_])), pos_);
    return nullptr;
  }
  return root_;
}

}  // namespace

Id readOpenStep(std::span<const uint8_t> text, std::string& reason) {
  return OpenStepReader(text, reason).read();
}

}  // namespace nk::plist_internal
