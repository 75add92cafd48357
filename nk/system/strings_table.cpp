// The string-table parser: decodes the text to UTF-16, then scans entries with
// a cursor.
#include "nk/system/strings_table.hpp"

#include <optional>
#include <string>

#include "nk/foundation/string.hpp"

namespace nk {
namespace {

std::optional<std::u16string> decode(std::string_view bytes) {
  auto byte = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
  if (bytes.size() >= 2 &&
      ((byte(0) == 0xFF && byte(1) == 0xFE) || (byte(0) == 0xFE && byte(1) == 0xFF))) {
    bool little = byte(0) == 0xFF;
    if (bytes.size() % 2 != 0) return std::nullopt;
    std::u16string units;
    units.reserve(bytes.size() / 2 - 1);
    for (size_t i = 2; i + 1 < bytes.size(); i += 2) {
      unsigned a = byte(i), b = byte(i + 1);
      units.push_back(static_cast<char16_t>(little ? (b << 8 | a) : (a << 8 | b)));
    }
    // An unpaired surrogate is not UTF-16, as a surrogate's bytes are not UTF-8 above.
    if (!String::fromUTF16(units)) return std::nullopt;
    return units;
  }
  if (bytes.size() >= 3 && byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF) {
    bytes.remove_prefix(3);
  }
  auto text = String::fromUTF8(bytes);
  if (!text) return std::nullopt;
  return text->toUTF16();
}

bool isWordUnit(char16_t c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

int hexValue(char16_t c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

class Scanner {
 public:
  explicit Scanner(const std::u16string& text) : text_(text) {}

  // Skips white space and comments; false on an unterminated block comment.
  bool skipSpace() {
    while (pos_ < text_.size()) {
      char16_t c = text_[pos_];
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == 0xFEFF || c == '\f' ||
          c == '\v') {
        ++pos_;
      } else if (c == '/' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '*') {
        size_t end = text_.find(u"*/", pos_ + 2);
        if (end == std::u16string::npos) return false;
        pos_ = end + 2;
      } else if (c == '/' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '/') {
        while (pos_ < text_.size() && text_[pos_] != '\n') ++pos_;
      } else {
        break;
      }
    }
    return true;
  }

  bool atEnd() const { return pos_ >= text_.size(); }
  bool take(char16_t c) {
    if (pos_ < text_.size() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }

  // A quoted string or an unquoted word.
  std::optional<std::u16string> string() {
    if (pos_ >= text_.size()) return std::nullopt;
    if (text_[pos_] != '"') {
      size_t start = pos_;
      while (pos_ < text_.size() && isWordUnit(text_[pos_])) ++pos_;
      if (pos_ == start) return std::nullopt;
      return text_.substr(start, pos_ - start);
    }
    ++pos_;
    std::u16string out;
    while (pos_ < text_.size()) {
      char16_t c = text_[pos_++];
      if (c == '"') return out;
      if (c != '\\') {
        out.push_back(c);
        continue;
      }
      if (pos_ >= text_.size()) return std::nullopt;
      char16_t e = text_[pos_++];
      switch (e) {
        case 'n':
          out.push_back('\n');
          break;
        case 't':
          out.push_back('\t');
          break;
        case 'r':
          out.push_back('\r');
          break;
        case '0':
          out.push_back(u'\0');
          break;
        case 'U':
        case 'u': {
          unsigned value = 0;
          int digits = 0;
          while (digits < 4 && pos_ < text_.size() && hexValue(text_[pos_]) >= 0) {
            value = value * 16 + static_cast<unsigned>(hexValue(text_[pos_++]));
            ++digits;
          }
          out.push_back(digits ? static_cast<char16_t>(value) : e);
          break;
        }
        default:
          out.push_back(e);
          break;
      }
    }
    return std::nullopt;
  }

 private:
  const std::u16string& text_;
  size_t pos_ = 0;
};

}  // namespace

Ref<Dictionary> parseStringsTable(std::string_view bytes) {
  auto text = decode(bytes);
  if (!text) return nullptr;
  Scanner scan(*text);
  auto table = MutableDictionary::make();
  while (true) {
    if (!scan.skipSpace()) return nullptr;
    if (scan.atEnd()) break;
    auto key = scan.string();
    if (!key || !scan.skipSpace()) return nullptr;
    std::optional<std::u16string> value;
    if (scan.take('=')) {
      if (!scan.skipSpace()) return nullptr;
      value = scan.string();
      if (!value || !scan.skipSpace()) return nullptr;
    } else {
      value = key;
    }
    if (!scan.take(';')) return nullptr;
    table->setObjectForKey(String::withCharacters(*value), String::withCharacters(*key));
  }
  return table;
}

}  // namespace nk
