// Keychain item services: generic-password items of the user's secret store, named
// by service and account, added, found, updated and deleted through query
// dictionaries as on the original platform. Which store answers is decided by
// keychain_backend.hpp.
#pragma once

#include <cstdint>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// The result of every item operation.
using OSStatus = int32_t;

// Status values.
inline constexpr OSStatus errSecSuccess = 0;
// An item with that service and account already exists (SecItemAdd).
inline constexpr OSStatus errSecDuplicateItem = -25299;
// No item matches (or the store holding it is unreadable: a corrupt file store).
inline constexpr OSStatus errSecItemNotFound = -25300;
// A malformed query: not a dictionary, an unknown key, a missing or non-string
// service or account, a text that is not valid Unicode or holds U+0000, a value of
// the wrong type, or an unsupported class, accessibility or match limit.
inline constexpr OSStatus errSecParam = -50;
// The store cannot be reached: the Secret Service failed or has no default
// collection; the file store has no home folder or a folder that is not its own.
inline constexpr OSStatus errSecNotAvailable = -25291;
// The file store could not read or write its files.
inline constexpr OSStatus errSecIO = -36;
// The collection is locked and could not be unlocked.
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;
// The person dismissed the Secret Service's prompt.
inline constexpr OSStatus errSecUserCanceled = -128;

// Query keys and values, with the platform's own texts.
String* kSecClass() noexcept;                       // "class"
String* kSecClassGenericPassword() noexcept;        // "genp", the only class kept
String* kSecAttrService() noexcept;                 // "svce", a string
String* kSecAttrAccount() noexcept;                 // "acct", a string
String* kSecAttrAccessible() noexcept;              // "pdmn"
String* kSecAttrAccessibleWhenUnlocked() noexcept;  // "ak", the only accessibility kept
String* kSecValueData() noexcept;                   // "v_Data", a Data
String* kSecReturnData() noexcept;                  // "r_Data", a Boolean or number
String* kSecMatchLimit() noexcept;                  // "m_Limit"
String* kSecMatchLimitOne() noexcept;               // "m_LimitOne", the only limit kept

// Every query names one item: kSecClass = kSecClassGenericPassword, kSecAttrService
// and kSecAttrAccount are required; kSecAttrAccessible may be given as
// kSecAttrAccessibleWhenUnlocked. Service and account are compared exactly, code
// unit for code unit. Any other key, or another value, gives errSecParam.

// Adds the item of `attributes` holding kSecValueData (no value: empty bytes).
// errSecDuplicateItem when the item exists.
OSStatus SecItemAdd(const Dictionary* attributes);

// Finds the item of `query`, which may add kSecReturnData (true: *result is a
// Data with the item's value; otherwise *result is nil) and kSecMatchLimit =
// kSecMatchLimitOne. kSecValueData in the query is ignored. *result is nil
// unless the status is errSecSuccess; `result` may be null.
OSStatus SecItemCopyMatching(const Dictionary* query, Id* result);

// Replaces the value of the item of `query` with the kSecValueData of
// `attributesToUpdate`, which holds that key alone. kSecValueData in the query is
// ignored. errSecItemNotFound when there is no such item.
OSStatus SecItemUpdate(const Dictionary* query, const Dictionary* attributesToUpdate);

// Deletes the item of `query`; errSecItemNotFound when there is none.
// kSecValueData in the query is ignored.
OSStatus SecItemDelete(const Dictionary* query);

}  // namespace nk
