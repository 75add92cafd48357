// ItemStore: what a secret store behind the keychain item services does: add, read,
// replace and delete one binary value named by service and account.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "nk/keychain/sec_item.hpp"

namespace nk::keychain_internal {

// Service and account as UTF-8 without U+0000 (the item services check this).
struct ItemKey {
  std::string service;
  std::string account;
};

// Every operation is safe to call from any thread and from several processes at once.
class ItemStore {
 public:
  virtual ~ItemStore() = default;

  // errSecDuplicateItem when the item exists.
  virtual OSStatus add(const ItemKey& key, std::span<const uint8_t> value) = 0;
  // The item's value in *value (when `value` is not null).
  virtual OSStatus copy(const ItemKey& key, std::vector<uint8_t>* value) = 0;
  // errSecItemNotFound when the item does not exist.
  virtual OSStatus update(const ItemKey& key, std::span<const uint8_t> value) = 0;
  virtual OSStatus remove(const ItemKey& key) = 0;
};

// The store keychainBackend() names now (keychain_backend.cpp); logs the choice the
// first time each store is used.
ItemStore& currentItemStore();

}  // namespace nk::keychain_internal
