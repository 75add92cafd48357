// NKLocalizationUtils on the main bundle's string tables.

#include "nk/environment/localization_utils.hpp"

#include "nk/system/bundle.hpp"

namespace nk {

Ref<String> NKLocalizationUtils::deviceSpecificLocalizedStringWithComment(
    const String* key, const String* /*comment*/) {
  Ref<Bundle> bundle = Bundle::mainBundle();
  if (!bundle) return Ref<String>(const_cast<String*>(key));
  // An empty fallback makes the bundle answer with the key when there is no translation.
  return bundle->localizedStringForKey(key, NK_STR(""), nullptr);
}

}  // namespace nk
