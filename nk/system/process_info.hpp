// ProcessInfo: facts about this process and the machine it runs on
// (operating-system version, names, environment, memory and processors),
// answered the Linux way.
#pragma once

#include <cstdint>
#include <string_view>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// A version as major.minor.patch; missing parts are 0.
struct OperatingSystemVersion {
  long majorVersion = 0;
  long minorVersion = 0;
  long patchVersion = 0;
  friend bool operator==(const OperatingSystemVersion&, const OperatingSystemVersion&) = default;
};

class ProcessInfo final : public Object {
  NK_DECLARE_CLASS(ProcessInfo, Object)

 public:
  // The shared instance. Every answer is read afresh on each call.
  static ProcessInfo* processInfo() noexcept;

  // The kernel release (`uname -r`) as a version: "6.1.0-18-amd64" gives 6.1.0.
  OperatingSystemVersion operatingSystemVersion() const;
  // True when operatingSystemVersion() is `version` or later.
  bool isOperatingSystemAtLeastVersion(const OperatingSystemVersion& version) const;
  // Reads the leading "major.minor.patch" of a release text; parts that are
  // absent or not numbers are 0 ("6" gives 6.0.0, "x" gives 0.0.0).
  static OperatingSystemVersion parseOperatingSystemVersion(std::string_view release) noexcept;

  // The last component of the program's invocation name (argv[0]).
  Ref<String> processName() const;
  int processIdentifier() const noexcept;
  // The environment as a dictionary of strings (variables that are not UTF-8
  // are left out).
  Ref<Dictionary> environment() const;
  // One variable, nil when unset or not UTF-8.
  static Ref<String> environmentVariable(const char* name);

  // gethostname(), nil if it fails.
  Ref<String> hostName() const;
  // The pretty host name (PRETTY_HOSTNAME= in /etc/machine-info, or the file
  // named by NK_MACHINE_INFO), else hostName(). A quoted name of blanks is a name;
  // an empty one is none.
  Ref<String> computerName() const;

  uint64_t physicalMemory() const noexcept;
  // Processors this process may run on (its affinity mask), at least 1.
  unsigned long activeProcessorCount() const noexcept;
  // Processors configured in the machine, at least 1.
  unsigned long processorCount() const noexcept;

 private:
  ProcessInfo() noexcept = default;
};

}  // namespace nk
