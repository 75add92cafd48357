// ProcessInfo: process and machine facts from uname, /proc, sysconf and
// /etc/machine-info.
#include "nk/system/process_info.hpp"

#include <errno.h>
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <tuple>

#include "nk/foundation/class.hpp"

extern char** environ;

namespace nk {

NK_DEFINE_CLASS(ProcessInfo, "ProcessInfo");

namespace {

// The value of a shell-style assignment's right-hand side: quotes removed,
// backslash escapes resolved, trailing blanks outside quotes dropped, as systemd's
// environment-file reader does. Quoted blanks stay: "   " is a name, made of spaces.
std::string unquoteShellValue(std::string_view value) {
  std::string out;
  size_t quoted = 0;  // the length of `out` up to its last quoted or escaped character
  char quote = 0;
  for (size_t i = 0; i < value.size(); ++i) {
    char c = value[i];
    if (quote == '\'') {
      if (c == '\'') {
        quote = 0;
      } else {
        out.push_back(c);
        quoted = out.size();
      }
    } else if (c == '\\' && i + 1 < value.size()) {
      out.push_back(value[++i]);
      quoted = out.size();
    } else if (quote == 0 && (c == '"' || c == '\'')) {
      quote = c;
    } else if (quote == '"' && c == '"') {
      quote = 0;
    } else {
      out.push_back(c);
      if (quote) quoted = out.size();
    }
  }
  while (out.size() > quoted && (out.back() == ' ' || out.back() == '\t' || out.back() == '\r')) {
    out.pop_back();
  }
  return out;
}

}  // namespace

ProcessInfo* ProcessInfo::processInfo() noexcept {
  static ProcessInfo* const shared = [] {
    auto* info = new ProcessInfo();
    info->makeImmortal();
    return info;
  }();
  return shared;
}

OperatingSystemVersion ProcessInfo::parseOperatingSystemVersion(std::string_view release) noexcept {
  long parts[3] = {0, 0, 0};
  size_t i = 0;
  for (int part = 0; part < 3; ++part) {
    if (i >= release.size() || release[i] < '0' || release[i] > '9') break;
    long value = 0;
    while (i < release.size() && release[i] >= '0' && release[i] <= '9') {
      if (value < 100000000) value = value * 10 + (release[i] - '0');
      ++i;
    }
    parts[part] = value;
    if (i >= release.size() || release[i] != '.') break;
    ++i;
  }
  return {parts[0], parts[1], parts[2]};
}

OperatingSystemVersion ProcessInfo::operatingSystemVersion() const {
  struct utsname names;
  if (uname(&names) != 0) return {};
  return parseOperatingSystemVersion(names.release);
}

bool ProcessInfo::isOperatingSystemAtLeastVersion(const OperatingSystemVersion& version) const {
  OperatingSystemVersion current = operatingSystemVersion();
  return std::tie(current.majorVersion, current.minorVersion, current.patchVersion) >=
         std::tie(version.majorVersion, version.minorVersion, version.patchVersion);
}

Ref<String> ProcessInfo::processName() const {
  const char* name = program_invocation_short_name;
  Ref<String> text = String::fromUTF8(name ? name : "");
  return text ? text : Ref<String>(String::fromLatin1(name ? name : ""));
}

int ProcessInfo::processIdentifier() const noexcept { return static_cast<int>(getpid()); }

Ref<Dictionary> ProcessInfo::environment() const {
  auto result = MutableDictionary::make();
  for (char** entry = environ; entry && *entry; ++entry) {
    std::string_view text(*entry);
    size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0) continue;
    auto key = String::fromUTF8(text.substr(0, equals));
    auto value = String::fromUTF8(text.substr(equals + 1));
    if (key && value) result->setObjectForKey(value, key);
  }
  return result;
}

Ref<String> ProcessInfo::environmentVariable(const char* name) {
  const char* value = std::getenv(name);
  return value ? String::fromUTF8(value) : nullptr;
}

Ref<String> ProcessInfo::hostName() const {
  char buffer[256] = {};
  if (gethostname(buffer, sizeof buffer - 1) != 0) return nullptr;
  return String::fromUTF8(buffer);
}

Ref<String> ProcessInfo::computerName() const {
  const char* path = std::getenv("NK_MACHINE_INFO");
  std::ifstream in(path && *path ? path : "/etc/machine-info");
  std::string line;
  std::string pretty;
  while (in && std::getline(in, line)) {
    constexpr std::string_view kKey = "PRETTY_HOSTNAME=";
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line.compare(start, kKey.size(), kKey) != 0) continue;
    pretty = unquoteShellValue(std::string_view(line).substr(start + kKey.size()));
  }
  if (!pretty.empty()) {
    if (auto text = String::fromUTF8(pretty)) return text;
  }
  return hostName();
}

uint64_t ProcessInfo::physicalMemory() const noexcept {
  long pages = sysconf(_SC_PHYS_PAGES);
  long size = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || size <= 0) return 0;
  return static_cast<uint64_t>(pages) * static_cast<uint64_t>(size);
}

unsigned long ProcessInfo::activeProcessorCount() const noexcept {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    int count = CPU_COUNT(&set);
    if (count > 0) return static_cast<unsigned long>(count);
  }
  long online = sysconf(_SC_NPROCESSORS_ONLN);
  return online > 0 ? static_cast<unsigned long>(online) : 1;
}

unsigned long ProcessInfo::processorCount() const noexcept {
  long configured = sysconf(_SC_NPROCESSORS_CONF);
  return configured > 0 ? static_cast<unsigned long>(configured) : 1;
}

}  // namespace nk
