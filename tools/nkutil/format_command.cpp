// nkutil format: byte counts and durations as the client shows them to people, in
// the user's locale.
#include <CLI/App.hpp>
#include <charconv>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>

#include "nk/foundation/format.hpp"
#include "nk/system/byte_count_formatter.hpp"
#include "nk/system/duration_formatter.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"

namespace nk::cli {

namespace {

struct SizeOptions {
  int64_t bytes = 0;
  bool binary = false;
  bool json = false;
};

struct DurationOptions {
  double seconds = 0;
  bool json = false;
};

// A check that the whole text is a decimal number that fits in T. Left to itself,
// CLI11 would read empty text as zero and clamp a number out of range.
template <class T>
CLI::Validator numberText() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        T value;
        const char* end = text.data() + text.size();
        const auto [at, error] = std::from_chars(text.data(), end, value);
        if (error == std::errc::result_out_of_range) return "is out of range";
        if (text.empty() || error != std::errc() || at != end) return "must be a decimal number";
        return {};
      },
      "NUMBER");
}

int runSize(const SizeOptions& options) {
  return printValue(
      ByteCountFormatter::stringFromByteCount(
          options.bytes, options.binary ? ByteCountStyle::kBinary : ByteCountStyle::kFile),
      options.json);
}

int runDuration(const DurationOptions& options) {
  Ref<String> text = DurationFormatter::stringFromTimeInterval(options.seconds);
  if (!text) return fail(formatUTF8("%g seconds cannot be shown as a duration.", options.seconds));
  return printValue(text, options.json);
}

}  // namespace

void addFormatCommands(CLI::App& app, CommandAction& action) {
  CLI::App* format = app.add_subcommand("format", "Numbers as the client shows them to people");
  format->require_subcommand(1);

  CLI::App* size = format->add_subcommand("size", "A byte count as a file size (\"1.5 MB\")");
  auto sizeOptions = std::make_shared<SizeOptions>();
  size->add_option("BYTES", sizeOptions->bytes, "The number of bytes")
      ->required()
      ->check(numberText<int64_t>());
  size->add_flag("--binary", sizeOptions->binary, "Count in units of 1024 bytes, not 1000");
  addJsonFlag(*size, sizeOptions->json);
  size->callback(
      [&action, sizeOptions] { action = [sizeOptions] { return runSize(*sizeOptions); }; });

  CLI::App* duration =
      format->add_subcommand("duration", "Seconds in spelled-out units (\"1 hour, 5 minutes\")");
  auto durationOptions = std::make_shared<DurationOptions>();
  duration->add_option("SECONDS", durationOptions->seconds, "The number of seconds")
      ->required()
      ->check(numberText<double>());
  addJsonFlag(*duration, durationOptions->json);
  duration->callback([&action, durationOptions] {
    action = [durationOptions] { return runDuration(*durationOptions); };
  });
}

}  // namespace nk::cli
