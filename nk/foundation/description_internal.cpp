// Old-style property-list text for collection descriptions. Nested collections
// start with their own indentation after the parent's, which gives the
// platform's familiar "key =     {" and doubly indented "{" inside arrays.
#include "nk/foundation/description_internal.hpp"

#include <algorithm>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/set.hpp"

namespace nk::description_internal {
namespace {

void appendASCII(std::u16string& out, const char* text) {
  while (*text) out.push_back(static_cast<char16_t>(*text++));
}

void indent(std::u16string& out, unsigned level) { out.append(size_t{level} * 4, u' '); }

bool isBare(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') ||
         c == u'_' || c == u'.' || c == u'$' || c == u'/' || c == u':';
}

void appendHex4(std::u16string& out, char16_t c) {
  static const char kHex[] = "0123456789abcdef";
  for (int shift = 12; shift >= 0; shift -= 4)
    out.push_back(static_cast<char16_t>(kHex[(c >> shift) & 0xF]));
}

// Appends the elements of a bracketed list, one per line, separated by commas.
template <class Range>
void appendList(std::u16string& out, const Range& range, unsigned level) {
  bool first = true;
  for (const Id& element : range) {
    if (!first) out.push_back(u',');
    out.push_back(u'\n');
    first = false;
    indent(out, level + 1);
    appendElement(out, element.get(), level + 1);
  }
  out.push_back(u'\n');
}

void appendArray(std::u16string& out, const Array& array, unsigned level) {
  indent(out, level);
  out.push_back(u'(');
  if (array.isEmpty())
    out.push_back(u'\n');
  else
    appendList(out, array, level);
  indent(out, level);
  out.push_back(u')');
}

void appendSet(std::u16string& out, const Set& set, unsigned level) {
  indent(out, level);
  appendASCII(out, "{(");
  if (set.isEmpty())
    out.push_back(u'\n');
  else
    appendList(out, set, level);
  indent(out, level);
  appendASCII(out, ")}");
}

void appendDictionary(std::u16string& out, const Dictionary& dict, unsigned level) {
  std::vector<std::pair<const Object*, const Object*>> lines;
  lines.reserve(dict.count());
  bool allStrings = true;
  for (const auto& [key, value] : dict.entries()) {
    lines.emplace_back(key.get(), value.get());
    allStrings = allStrings && cast<String>(key.get());
  }
  if (allStrings) {
    std::stable_sort(lines.begin(), lines.end(), [](const auto& a, const auto& b) {
      return static_cast<const String*>(a.first)->compare(*static_cast<const String*>(b.first)) < 0;
    });
  }
  indent(out, level);
  appendASCII(out, "{\n");
  for (const auto& [key, value] : lines) {
    indent(out, level + 1);
    appendElement(out, key, level + 1);
    appendASCII(out, " = ");
    appendElement(out, value, level + 1);
    appendASCII(out, ";\n");
  }
  indent(out, level);
  out.push_back(u'}');
}

}  // namespace

void appendQuotedString(std::u16string& out, const String* string) {
  bool bare = !string->isEmpty();
  string->forEachUnit([&](char16_t c) { bare = bare && isBare(c); });
  if (bare) {
    string->forEachUnit([&](char16_t c) { out.push_back(c); });
    return;
  }
  out.push_back(u'"');
  string->forEachUnit([&](char16_t c) {
    switch (c) {
      case u'"':
        appendASCII(out, "\\\"");
        return;
      case u'\\':
        appendASCII(out, "\\\\");
        return;
      case u'\a':
        appendASCII(out, "\\a");
        return;
      case u'\b':
        appendASCII(out, "\\b");
        return;
      case u'\t':
        appendASCII(out, "\\t");
        return;
      case u'\n':
        appendASCII(out, "\\n");
        return;
      case u'\v':
        appendASCII(out, "\\v");
        return;
      case u'\f':
        appendASCII(out, "\\f");
        return;
      case u'\r':
        appendASCII(out, "\\r");
        return;
      default:
        break;
    }
    if (c < 0x20 || c == 0x7F) {
      // Other control characters as three octal digits.
      out.push_back(u'\\');
      out.push_back(static_cast<char16_t>(u'0' + ((c >> 6) & 7)));
      out.push_back(static_cast<char16_t>(u'0' + ((c >> 3) & 7)));
      out.push_back(static_cast<char16_t>(u'0' + (c & 7)));
    } else if (c >= 0x80) {
      appendASCII(out, "\\U");
      appendHex4(out, c);
    } else {
      out.push_back(c);
    }
  });
  out.push_back(u'"');
}

void appendElement(std::u16string& out, const Object* object, unsigned level) {
  if (!object) {
    appendASCII(out, "(null)");
  } else if (const auto* s = cast<String>(object)) {
    appendQuotedString(out, s);
  } else if (const auto* a = cast<Array>(object)) {
    appendArray(out, *a, level);
  } else if (const auto* d = cast<Dictionary>(object)) {
    appendDictionary(out, *d, level);
  } else if (const auto* set = cast<Set>(object)) {
    appendSet(out, *set, level);
  } else if (Ref<String> text = object->description()) {
    text->forEachUnit([&](char16_t c) { out.push_back(c); });
  } else {
    appendASCII(out, "(null)");
  }
}

Ref<String> describeCollection(const Object* collection) {
  std::u16string out;
  appendElement(out, collection, 0);
  return String::withCharacters(out);
}

}  // namespace nk::description_internal
