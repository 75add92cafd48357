// NKKeychainUtils: the store's queries, delete-then-add with the duplicate path to
// update, secure decoding with the allow-list and the legacy class names, and the hop
// off the main thread.
#include "nk/keychain/keychain_utils.hpp"

#include <algorithm>
#include <memory>
#include <vector>

#include "nk/dispatch/main_thread.hpp"
#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/semaphore.hpp"
#include "nk/foundation/array.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/keyed_archiver.hpp"
#include "nk/foundation/keyed_unarchiver.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/set.hpp"
#include "nk/foundation/url.hpp"
#include "nk/system/bundle.hpp"

namespace nk {
namespace {

// Archives written under the credential classes' former names decode as the classes
// that replaced them, which belong to the host.
constexpr std::pair<const char*, const char*> kClassTranslations[] = {
    {"NKACredentialAuthorityContainer", "VNKACredentialAuthorityContainer"},
    {"NKAOAuth2Credential", "VNKAOAuth2Credential"},
    {"NKAOAuthToken", "VNKAOAuthToken"},
};

// Set afresh on every read: a host without one of the classes has that name mapped to
// nothing, whatever was registered for it before.
void registerClassTranslations() {
  for (const auto& [codedName, className] : kClassTranslations) {
    KeyedUnarchiver::setClassForClassName(Class::named(className), codedName);
  }
}

std::vector<const Class*> allowedClasses(const Class* requested) {
  std::vector<const Class*> classes = {&Dictionary::staticClass(), &String::staticClass(),
                                       &Number::staticClass(),     &Array::staticClass(),
                                       &Set::staticClass(),        &URL::staticClass(),
                                       &Date::staticClass()};
  if (requested && std::find(classes.begin(), classes.end(), requested) == classes.end()) {
    classes.push_back(requested);
  }
  return classes;
}

}  // namespace

Ref<MutableDictionary> NKKeychainUtils::getInitKeychainDictionaryWithKey(const String* key) {
  if (!key) return nullptr;
  Ref<Bundle> bundle = Bundle::mainBundle();
  Ref<String> service = bundle ? bundle->bundleIdentifier() : nullptr;
  if (!service) return nullptr;
  return MutableDictionary::make({{kSecClass(), kSecClassGenericPassword()},
                                  {kSecAttrService(), service},
                                  {kSecAttrAccount(), key->copy()},
                                  {kSecAttrAccessible(), kSecAttrAccessibleWhenUnlocked()}});
}

bool NKKeychainUtils::setKeychainObjectForKey(const Object* object, const String* key) {
  Ref<MutableDictionary> query = getInitKeychainDictionaryWithKey(key);
  if (!query) return false;
  runOnNotMainThread([&] { return SecItemDelete(query.get()); });
  if (Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject(object, true)) {
    query->setObjectForKey(archive, kSecValueData());
  }
  OSStatus status = runOnNotMainThread([&] { return SecItemAdd(query.get()); });
  if (status == errSecDuplicateItem) {
    Ref<MutableDictionary> update = MutableDictionary::make();
    if (Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject(object, true)) {
      update->setObjectForKey(archive, kSecValueData());
    }
    status = runOnNotMainThread([&] { return SecItemUpdate(query.get(), update.get()); });
  }
  return status == errSecSuccess;
}

Id NKKeychainUtils::getKeychainObjectForKeyOfClassType(const String* key, const Class* cls) {
  Ref<MutableDictionary> query = getInitKeychainDictionaryWithKey(key);
  if (!query) return nullptr;
  query->setObjectForKey(Number::yes(), kSecReturnData());
  query->setObjectForKey(kSecMatchLimitOne(), kSecMatchLimit());
  Id data;
  OSStatus status = runOnNotMainThread([&] { return SecItemCopyMatching(query.get(), &data); });
  if (status != errSecSuccess) return nullptr;
  registerClassTranslations();
  try {
    std::vector<const Class*> classes = allowedClasses(cls);
    return KeyedUnarchiver::unarchivedObjectOfClasses(classes, cast<Data>(data).get());
  } catch (const ThrownObject& thrown) {
    if (!cast<Exception>(thrown.object())) throw;
    return nullptr;
  }
}

bool NKKeychainUtils::deleteKeychainObjectForKey(const String* key) {
  Ref<MutableDictionary> query = getInitKeychainDictionaryWithKey(key);
  if (!query) return false;
  return runOnNotMainThread([&] { return SecItemDelete(query.get()); }) == errSecSuccess;
}

OSStatus NKKeychainUtils::runOnNotMainThread(FunctionRef<OSStatus()> work) {
  if (!isMainThread()) return work();
  // Shared with the task, so the semaphore outlives the task's signal even when the
  // main thread wakes and returns first.
  struct Hop {
    Semaphore done{1};
    OSStatus status = errSecSuccess;
  };
  auto hop = std::make_shared<Hop>();
  hop->done.wait();
  Queue::global(QueuePriority::kDefault).async([hop, work] {
    hop->status = work();
    hop->done.signal();
  });
  hop->done.wait();
  hop->done.signal();
  return hop->status;
}

}  // namespace nk
