// The keychain item services: query dictionaries checked and turned into one item
// operation of the current store.
#include "nk/keychain/sec_item.hpp"

#include <utility>
#include <vector>

#include "nk/foundation/data.hpp"
#include "nk/foundation/number.hpp"
#include "nk/keychain/item_store_internal.hpp"

namespace nk {

String* kSecClass() noexcept { return NK_STR("class"); }
String* kSecClassGenericPassword() noexcept { return NK_STR("genp"); }
String* kSecAttrService() noexcept { return NK_STR("svce"); }
String* kSecAttrAccount() noexcept { return NK_STR("acct"); }
String* kSecAttrAccessible() noexcept { return NK_STR("pdmn"); }
String* kSecAttrAccessibleWhenUnlocked() noexcept { return NK_STR("ak"); }
String* kSecValueData() noexcept { return NK_STR("v_Data"); }
String* kSecReturnData() noexcept { return NK_STR("r_Data"); }
String* kSecMatchLimit() noexcept { return NK_STR("m_Limit"); }
String* kSecMatchLimitOne() noexcept { return NK_STR("m_LimitOne"); }

namespace {

using keychain_internal::currentItemStore;
using keychain_internal::ItemKey;

// Search keys are accepted by SecItemCopyMatching only.
enum class Use { kWrite, kSearch };

struct Query {
  ItemKey key;
  const Data* value = nullptr;
  bool returnData = false;
};

// Service and account as the stores keep them: strict UTF-8 without U+0000.
bool itemText(const Object* value, std::string& out) {
  const String* text = cast<String>(value);
  return text && text->toUTF8(out) && out.find('\0') == std::string::npos;
}

OSStatus parse(const Dictionary* dictionary, Use use, Query& query) {
  if (!dictionary) return errSecParam;
  bool hasClass = false, hasService = false, hasAccount = false;
  for (const auto& [keyObject, value] : dictionary->entries()) {
    const String* key = cast<String>(keyObject.get());
    if (!key) return errSecParam;
    bool valid;
    if (key->isEqualToString(kSecClass())) {
      valid = hasClass = isEqual(value.get(), kSecClassGenericPassword());
    } else if (key->isEqualToString(kSecAttrService())) {
      valid = hasService = itemText(value.get(), query.key.service);
    } else if (key->isEqualToString(kSecAttrAccount())) {
      valid = hasAccount = itemText(value.get(), query.key.account);
    } else if (key->isEqualToString(kSecAttrAccessible())) {
      valid = isEqual(value.get(), kSecAttrAccessibleWhenUnlocked());
    } else if (key->isEqualToString(kSecValueData())) {
      query.value = cast<Data>(value.get());
      valid = query.value != nullptr;
    } else if (use == Use::kSearch && key->isEqualToString(kSecReturnData())) {
      const Number* flag = cast<Number>(value.get());
      valid = flag != nullptr;
      query.returnData = valid && flag->boolValue();
    } else if (use == Use::kSearch && key->isEqualToString(kSecMatchLimit())) {
      valid = isEqual(value.get(), kSecMatchLimitOne());
    } else {
      valid = false;
    }
    if (!valid) return errSecParam;
  }
  return hasClass && hasService && hasAccount ? errSecSuccess : errSecParam;
}

std::span<const uint8_t> bytesOf(const Data* data) {
  return data ? data->span() : std::span<const uint8_t>();
}

}  // namespace

OSStatus SecItemAdd(const Dictionary* attributes) {
  Query query;
  OSStatus status = parse(attributes, Use::kWrite, query);
  if (status != errSecSuccess) return status;
  return currentItemStore().add(query.key, bytesOf(query.value));
}

OSStatus SecItemCopyMatching(const Dictionary* query, Id* result) {
  if (result) *result = nullptr;
  Query parsed;
  OSStatus status = parse(query, Use::kSearch, parsed);
  if (status != errSecSuccess) return status;
  if (!parsed.returnData || !result) return currentItemStore().copy(parsed.key, nullptr);
  std::vector<uint8_t> value;
  status = currentItemStore().copy(parsed.key, &value);
  if (status == errSecSuccess) *result = Data::fromVector(std::move(value));
  return status;
}

OSStatus SecItemUpdate(const Dictionary* query, const Dictionary* attributesToUpdate) {
  Query parsed;
  OSStatus status = parse(query, Use::kWrite, parsed);
  if (status != errSecSuccess) return status;
  if (!attributesToUpdate || attributesToUpdate->count() != 1) return errSecParam;
  Ref<Data> value = attributesToUpdate->objectForKeyOfClass<Data>(kSecValueData());
  if (!value) return errSecParam;
  return currentItemStore().update(parsed.key, value->span());
}

OSStatus SecItemDelete(const Dictionary* query) {
  Query parsed;
  OSStatus status = parse(query, Use::kWrite, parsed);
  if (status != errSecSuccess) return status;
  return currentItemStore().remove(parsed.key);
}

}  // namespace nk
