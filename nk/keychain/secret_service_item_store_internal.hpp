// SecretServiceItemStore: keychain items in the Secret Service of the session bus
// (GNOME Keyring, KWallet, KeePassXC), through libsecret.
#pragma once

#include <optional>
#include <string>

#include "nk/keychain/item_store_internal.hpp"

namespace nk::keychain_internal {

// Items live in the default collection (created by the service, with its own prompt,
// when missing) under the schema kSchemaName with the attributes "service" and
// "account", both always set, and the label "<service> — <account>" that people see
// in their keyring manager. Values are stored as binary secrets; no copy is written
// anywhere else. Adding first searches, so two processes adding one item at the same
// moment may both succeed, the later value winning.
class SecretServiceItemStore final : public ItemStore {
 public:
  static constexpr const char* kSchemaName = "org.nkutils.keychain.GenericPassword";

  // The session bus's address: DBUS_SESSION_BUS_ADDRESS, else the socket
  // `$XDG_RUNTIME_DIR/bus` when there is one; nullopt otherwise (no bus is ever
  // launched).
  static std::optional<std::string> sessionBusAddress();
  // True when the session bus has "org.freedesktop.secrets" owned or activatable.
  // Asks the bus on each call, waiting at most a second per question; false at once
  // without a session bus.
  static bool isOfferedOnSessionBus();

  OSStatus add(const ItemKey& key, std::span<const uint8_t> value) override;
  OSStatus copy(const ItemKey& key, std::vector<uint8_t>* value) override;
  OSStatus update(const ItemKey& key, std::span<const uint8_t> value) override;
  OSStatus remove(const ItemKey& key) override;
};

}  // namespace nk::keychain_internal
