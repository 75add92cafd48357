// The printf-style formatter with %@, shared by every text the library builds.
#include "nk/foundation/format.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace nk {
namespace {

struct Directive {
  std::string flags;
  int width = -1;
  int precision = -1;
  int lengthBits = 32;  // 8 (hh), 16 (h), 32 (none), 64 (l, ll, q, z, j, t)
  char conversion = 0;
};

// Appends `text` padded to the width the directive asks for.
void appendPadded(std::string& out, std::string_view text, const Directive& directive) {
  size_t width = directive.width > 0 ? static_cast<size_t>(directive.width) : 0;
  bool left = directive.flags.find('-') != std::string::npos;
  if (!left && text.size() < width) out.append(width - text.size(), ' ');
  out.append(text);
  if (left && text.size() < width) out.append(width - text.size(), ' ');
}

int64_t asSigned(const FormatArg& a) {
  switch (a.kind) {
    case FormatArg::Kind::kSigned:
      return a.i;
    case FormatArg::Kind::kUnsigned:
      return static_cast<int64_t>(a.u);
    case FormatArg::Kind::kDouble:
      return static_cast<int64_t>(a.d);
    case FormatArg::Kind::kPointer:
      return static_cast<int64_t>(reinterpret_cast<intptr_t>(a.p));
    default:
      return 0;
  }
}

uint64_t asUnsigned(const FormatArg& a) {
  if (a.kind == FormatArg::Kind::kUnsigned) return a.u;
  return static_cast<uint64_t>(asSigned(a));
}

double asDouble(const FormatArg& a) {
  switch (a.kind) {
    case FormatArg::Kind::kDouble:
      return a.d;
    case FormatArg::Kind::kSigned:
      return static_cast<double>(a.i);
    case FormatArg::Kind::kUnsigned:
      return static_cast<double>(a.u);
    default:
      return 0;
  }
}

std::string cFormat(const Directive& directive, const char* lengthMod, char conversion) {
  std::string f = "%" + directive.flags;
  if (directive.width >= 0) f += std::to_string(directive.width);
  if (directive.precision >= 0) f += "." + std::to_string(directive.precision);
  f += lengthMod;
  f += conversion;
  return f;
}

template <class T>
void appendPrintf(std::string& out, const std::string& fmt, T value) {
  char buf[128];
  int n = std::snprintf(buf, sizeof buf, fmt.c_str(), value);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof buf) {
    out.append(buf, static_cast<size_t>(n));
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), fmt.c_str(), value);
  out.append(big.data(), static_cast<size_t>(n));
}

void appendObject(std::string& out, const FormatArg& a, const Directive& directive) {
  switch (a.kind) {
    case FormatArg::Kind::kObject:
      appendPadded(out, a.object ? a.object->description()->utf8() : std::string("(null)"),
                   directive);
      return;
    case FormatArg::Kind::kText:
      appendPadded(out, a.text, directive);
      return;
    default:
      appendPadded(out, "(null)", directive);
  }
}

void appendText(std::string& out, const FormatArg& a, const Directive& directive) {
  std::string text;
  if (a.kind == FormatArg::Kind::kText) {
    text.assign(a.text);
  } else if (a.kind == FormatArg::Kind::kObject) {
    text = a.object ? a.object->description()->utf8() : "(null)";
  } else {
    text = "(null)";
  }
  if (directive.precision >= 0 && text.size() > static_cast<size_t>(directive.precision)) {
    // Cut before a character rather than inside it.
    size_t cut = static_cast<size_t>(directive.precision);
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    text.resize(cut);
  }
  appendPadded(out, text, directive);
}

void appendInteger(std::string& out, const FormatArg& a, const Directive& directive) {
  bool isSigned = directive.conversion == 'd' || directive.conversion == 'i';
  if (isSigned) {
    int64_t v = asSigned(a);
    if (directive.lengthBits == 8) v = static_cast<int8_t>(v);
    if (directive.lengthBits == 16) v = static_cast<int16_t>(v);
    if (directive.lengthBits == 32) v = static_cast<int32_t>(v);
    appendPrintf(out, cFormat(directive, "ll", directive.conversion), static_cast<long long>(v));
  } else {
    uint64_t v = asUnsigned(a);
    if (directive.lengthBits == 8) v = static_cast<uint8_t>(v);
    if (directive.lengthBits == 16) v = static_cast<uint16_t>(v);
    if (directive.lengthBits == 32) v = static_cast<uint32_t>(v);
    appendPrintf(out, cFormat(directive, "ll", directive.conversion),
                 static_cast<unsigned long long>(v));
  }
}

void appendCharacter(std::string& out, const FormatArg& a, const Directive& directive) {
  uint64_t c = asUnsigned(a);
  std::string text;
  if (directive.conversion == 'c') c &= 0xFF;
  if (c < 0x80) {
    text.push_back(static_cast<char>(c));
  } else {
    // %c of a byte above 0x7F and %C of a UTF-16 unit print the character.
    Ref<String> s = String::withCharacters(std::u16string(1, static_cast<char16_t>(c)));
    text = s->utf8();
  }
  appendPadded(out, text, directive);
}

}  // namespace

Ref<String> format_internal::toString(std::string_view utf8) {
  if (Ref<String> text = String::fromUTF8(utf8)) return text;
  auto lenient = make<MutableString>();
  lenient->appendUTF8(utf8);
  return cast<String>(lenient->copy());
}

std::string vformatUTF8(std::string_view fmt, std::span<const FormatArg> args) {
  std::string out;
  out.reserve(fmt.size() + 16 * args.size());
  size_t next = 0;
  auto take = [&]() -> const FormatArg* { return next < args.size() ? &args[next++] : nullptr; };

  for (size_t i = 0; i < fmt.size(); ++i) {
    char c = fmt[i];
    if (c != '%') {
      out.push_back(c);
      continue;
    }
    size_t start = i++;
    Directive directive;
    while (i < fmt.size() && std::strchr("-+ #0'", fmt[i])) directive.flags.push_back(fmt[i++]);
    if (i < fmt.size() && fmt[i] == '*') {
      const FormatArg* w = take();
      // Bounded as a written width is, before the sign is taken off.
      directive.width = w ? static_cast<int>(std::clamp<int64_t>(asSigned(*w), -4096, 4096)) : -1;
      if (directive.width < 0 && w) {
        directive.flags.push_back('-');
        directive.width = -directive.width;
      }
      ++i;
    } else {
      while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') {
        directive.width = std::max(directive.width, 0) * 10 + (fmt[i++] - '0');
        if (directive.width > 4096) directive.width = 4096;  // keeps a hostile width bounded
      }
    }
    if (i < fmt.size() && fmt[i] == '.') {
      ++i;
      directive.precision = 0;
      if (i < fmt.size() && fmt[i] == '*') {
        const FormatArg* p = take();
        directive.precision =
            p ? static_cast<int>(std::clamp<int64_t>(asSigned(*p), -1, 4096)) : -1;
        ++i;
      } else {
        while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') {
          directive.precision = directive.precision * 10 + (fmt[i++] - '0');
          if (directive.precision > 4096) directive.precision = 4096;
        }
      }
    }
    while (i < fmt.size() && std::strchr("hlqLzjt", fmt[i])) {
      char m = fmt[i++];
      if (m == 'h')
        directive.lengthBits = directive.lengthBits == 16 ? 8 : 16;
      else if (m != 'L')
        directive.lengthBits = 64;
    }
    if (i >= fmt.size()) {
      out.append(fmt.substr(start));
      break;
    }
    directive.conversion = fmt[i];
    if (directive.conversion == '%') {
      out.push_back('%');
      continue;
    }
    if (!std::strchr("@sdiuxXocCfFeEgGaAp", directive.conversion)) {
      // Not a directive: keep the text as written.
      out.append(fmt.substr(start, i - start + 1));
      continue;
    }
    const FormatArg* arg = take();
    if (!arg) continue;
    switch (directive.conversion) {
      case '@':
        appendObject(out, *arg, directive);
        break;
      case 's':
        appendText(out, *arg, directive);
        break;
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        appendInteger(out, *arg, directive);
        break;
      case 'c':
      case 'C':
        appendCharacter(out, *arg, directive);
        break;
      case 'p':
        appendPrintf(
            out, cFormat(directive, "", 'p'),
            arg->kind == FormatArg::Kind::kObject ? static_cast<const void*>(arg->object) : arg->p);
        break;
      default:
        appendPrintf(out, cFormat(directive, "", directive.conversion), asDouble(*arg));
    }
  }
  return out;
}

}  // namespace nk
