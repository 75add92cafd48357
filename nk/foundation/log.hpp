// nk::Log: one line on standard error, as the platform's log call writes it.
//
//   2026-11-21 14:11:12.345 nkutil[1234:1240] message
//
// A host may install its own sink, which then receives the message alone.
#pragma once

#include <functional>
#include <string_view>

#include "nk/foundation/format.hpp"

namespace nk {

// Receives each message (UTF-8, no trailing newline).
using LogSink = std::function<void(std::string_view message)>;

// Replaces the sink; an empty function restores standard error. Returns the
// previous sink.
LogSink setLogSink(LogSink sink);

// Writes one message through the current sink.
void logMessage(std::string_view message);

// Formats with nk::format's directives and logs the result.
template <class... Args>
void Log(std::string_view fmt, const Args&... args) {
  logMessage(formatUTF8(fmt, args...));
}

}  // namespace nk
