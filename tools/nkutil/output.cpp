// Text and JSON output, and errors, for every nkutil command.
#include "tools/nkutil/output.hpp"

#include <CLI/App.hpp>
#include <algorithm>
#include <cstdio>

#include "nk/foundation/data.hpp"
#include "nk/foundation/json_writer.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/string.hpp"
#include "nk/system/byte_count_formatter.hpp"

namespace nk::cli {

namespace {

std::string textOf(const Id& value) {
  if (!value || value->isKindOfClass(Null::staticClass())) return "(none)";
  if (auto text = cast<String>(value)) return text->utf8();
  if (auto flag = cast<Boolean>(value)) return flag->value() ? "yes" : "no";
  return value->description()->utf8();
}

int flushStdout() {
  return std::fflush(stdout) == 0 ? kExitDone : fail("Standard output cannot be written.");
}

}  // namespace

int fail(std::string_view sentence) {
  std::fprintf(stderr, "nkutil: %.*s\n", static_cast<int>(sentence.size()), sentence.data());
  return kExitFailed;
}

void addJsonFlag(CLI::App& command, bool& json) {
  command.add_flag("--json", json, "Print the answer as JSON, for scripts");
}

int printJSON(const Object* object, unsigned options) {
  Ref<Error> error;
  Ref<Data> bytes = writeJSON(object, options | kJSONWritingWithoutEscapingSlashes, &error);
  if (!bytes)
    return fail("The answer cannot be written as JSON: " + error->localizedDescription()->utf8());
  std::fwrite(bytes->bytes(), 1, bytes->length(), stdout);
  std::fputc('\n', stdout);
  return flushStdout();
}

int printValue(const Id& value, bool json) {
  if (json) return printJSON(value.get(), kJSONWritingFragmentsAllowed);
  std::printf("%s\n", textOf(value).c_str());
  return flushStdout();
}

std::string sizeText(int64_t bytes) {
  return ByteCountFormatter::stringFromByteCount(bytes, ByteCountStyle::kFile)->utf8();
}

Report::Report() : fields_(MutableDictionary::make()) {}

void Report::add(std::string_view key, std::string_view label, const Id& value) {
  add(key, label, value, textOf(value));
}

void Report::add(std::string_view key, std::string_view label, const Id& value, std::string text) {
  fields_->setObjectForKey(value ? value : Id(Null::null()), String::fromUTF8(key));
  lines_.emplace_back(label, std::move(text));
}

int Report::print(bool json) const {
  if (json) return printJSON(fields_.get(), kJSONWritingPrettyPrinted);
  size_t width = 0;
  for (const auto& [label, text] : lines_) width = std::max(width, label.size());
  for (const auto& [label, text] : lines_) {
    std::printf("%-*s  %s\n", static_cast<int>(width), label.c_str(), text.c_str());
  }
  return flushStdout();
}

}  // namespace nk::cli
