// NKLocalPropertyManager: reads the list's file from the library's bundle on each lookup.
#include "nk/storage/local_property_manager.hpp"

#include <span>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/property_list.hpp"
#include "nk/system/bundle.hpp"
#include "nk/system/bundle_internal.hpp"

namespace nk {

namespace {

// The dictionary at the top of the property-list file at `path`, nil for anything else.
Ref<Dictionary> readDictionary(const String* path) {
  auto bytes = bundle_internal::readFile(path->utf8());
  if (!bytes) return nullptr;
  return cast<Dictionary>(readPropertyList(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size())));
}

}  // namespace

Id NKLocalPropertyManager::apiOverrideForType(const String* type) {
  return valueForTypeList(type, NK_STR("NKAPIOverride"));
}

Id NKLocalPropertyManager::valueForTypeList(const String* type, const String* list) {
  if (!list || !type) return nullptr;
  Ref<String> path = Bundle::libraryBundle()->pathForResourceOfType(list, NK_STR("plist"));
  if (!path) return nullptr;
  Ref<Dictionary> values = readDictionary(path.get());
  return values ? values->objectForKey(type) : nullptr;
}

}  // namespace nk
