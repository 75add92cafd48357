// NKLocalPropertyManager: override values that ship as property lists among the library's
// own resources, such as the API override list "NKAPIOverride". Without the file every
// lookup gives nil and the host keeps its defaults.
#pragma once

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

class NKLocalPropertyManager {
 public:
  // valueForTypeList(type, "NKAPIOverride").
  static Id apiOverrideForType(const String* type);

  // The value stored under `type` in the dictionary of `<list>.plist` (XML or binary) in
  // the library's own resource folder (Resources/ of Bundle::libraryBundle(), never the
  // host's main bundle), returned as it is: a string, number, Boolean, date, data, array
  // or dictionary. The file is read afresh on every call, so a change takes effect on the
  // next lookup. nil for a nil argument, a missing or unreadable file, a list whose top
  // level is not a dictionary, and a missing key. Safe from any thread.
  static Id valueForTypeList(const String* type, const String* list);

  NKLocalPropertyManager() = delete;
};

}  // namespace nk
