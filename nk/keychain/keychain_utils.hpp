// NKKeychainUtils: objects kept as generic-password items of the user's secret store,
// one item per key holding the object's keyed archive, under the main bundle's
// identifier as service. The keychain is never called on the main thread.
#pragma once

#include "nk/dispatch/function_ref.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"
#include "nk/keychain/sec_item.hpp"

namespace nk {

// Outcomes are only true/false or nil: statuses and decoding errors are dropped and
// nothing is logged. Without a main-bundle identifier there is no query, so every
// operation fails without touching the store, as it does for a nil key.
class NKKeychainUtils {
 public:
  // A new query of four entries: kSecClass = kSecClassGenericPassword,
  // kSecAttrService = the main bundle's identifier, kSecAttrAccount = `key`,
  // kSecAttrAccessible = kSecAttrAccessibleWhenUnlocked. Nil for a nil key or
  // without a bundle identifier.
  static Ref<MutableDictionary> getInitKeychainDictionaryWithKey(const String* key);

  // Stores the keyed archive of `object` (secure coding required) under `key`,
  // replacing what was there. A nil object is archived as such. True when stored.
  static bool setKeychainObjectForKey(const Object* object, const String* key);

  // The object stored under `key`, decoded with the allow-list Dictionary, String,
  // Number, Array, Set, URL, Date and `cls` (nil adds nothing), after registering
  // the archive names "NKACredentialAuthorityContainer", "NKAOAuth2Credential" and
  // "NKAOAuthToken" as the classes of those names with a "V" in front (a name whose
  // class is absent is mapped to none, replacing any earlier mapping). `cls` only
  // widens the allow-list: the result may be of any class in it. Nil when missing or
  // undecodable; an Exception raised while decoding gives nil, other thrown objects
  // propagate.
  static Id getKeychainObjectForKeyOfClassType(const String* key, const Class* cls);

  // Deletes the item of `key`; false when there was none.
  static bool deleteKeychainObjectForKey(const String* key);

  // Runs `work` and returns its status. Off the main thread it runs inline; on the
  // main thread it runs on the default global queue while the main thread waits,
  // with no time-out.
  static OSStatus runOnNotMainThread(FunctionRef<OSStatus()> work);

  NKKeychainUtils() = delete;
};

}  // namespace nk
