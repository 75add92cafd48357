// NKLocalizationUtils: localized text from the application's own string table.
#pragma once

#include "nk/foundation/string.hpp"

namespace nk {

class NKLocalizationUtils {
 public:
  // The translation of `key` in the main bundle's default table ("Localizable"), or the
  // key itself when it has none. The comment is for translators only and is not used.
  static Ref<String> deviceSpecificLocalizedStringWithComment(const String* key,
                                                              const String* comment);

  NKLocalizationUtils() = delete;
};

}  // namespace nk
