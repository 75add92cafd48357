// The choice between the Secret Service and the file store, and the log line that
// tells which one a process uses.
#include "nk/keychain/keychain_backend.hpp"

#include <atomic>
#include <cstdlib>
#include <string_view>

#include "nk/foundation/log.hpp"
#include "nk/keychain/file_item_store_internal.hpp"
#include "nk/keychain/secret_service_item_store_internal.hpp"

namespace nk {
namespace {

using keychain_internal::FileItemStore;
using keychain_internal::SecretServiceItemStore;

struct Choice {
  KeychainBackend backend;
  std::string reason;
};

// Asked once: the bus's answer does not change for a process's session.
const Choice& automaticChoice() {
  static const Choice choice = [] {
    if (!SecretServiceItemStore::sessionBusAddress()) {
      return Choice{KeychainBackend::kFileStore, "there is no session bus"};
    }
    if (SecretServiceItemStore::isOfferedOnSessionBus()) {
      return Choice{KeychainBackend::kSecretService,
                    "the session bus offers org.freedesktop.secrets"};
    }
    return Choice{KeychainBackend::kFileStore, "the session bus offers no org.freedesktop.secrets"};
  }();
  return choice;
}

Choice currentChoice() {
  const char* chosen = std::getenv("NK_KEYCHAIN_BACKEND");
  std::string_view name = chosen ? chosen : "";
  if (name == "secret-service") {
    return {KeychainBackend::kSecretService, "NK_KEYCHAIN_BACKEND=secret-service"};
  }
  if (name == "file") return {KeychainBackend::kFileStore, "NK_KEYCHAIN_BACKEND=file"};
  Choice choice = automaticChoice();
  if (!name.empty()) {
    choice.reason = "NK_KEYCHAIN_BACKEND=\"" + std::string(name) +
                    "\" names no store (secret-service or file), and " + choice.reason;
  }
  return choice;
}

const char* nameOf(KeychainBackend backend) {
  return backend == KeychainBackend::kSecretService ? "secret-service" : "file";
}

std::string locationOf(KeychainBackend backend) {
  if (backend == KeychainBackend::kSecretService) return "org.freedesktop.secrets";
  return FileItemStore::folder().value_or("(no home folder)");
}

keychain_internal::ItemStore& storeOf(KeychainBackend backend) {
  static SecretServiceItemStore secretService;
  static FileItemStore file;
  if (backend == KeychainBackend::kSecretService) return secretService;
  return file;
}

}  // namespace

KeychainBackend keychainBackend() { return currentChoice().backend; }

KeychainBackendStatus keychainBackendStatus() {
  Choice choice = currentChoice();
  OSStatus status = storeOf(choice.backend).copy({"nkutils.keychain.probe", "probe"}, nullptr);
  return {choice.backend, nameOf(choice.backend), choice.reason, locationOf(choice.backend),
          status == errSecSuccess || status == errSecItemNotFound};
}

namespace keychain_internal {

ItemStore& currentItemStore() {
  static std::atomic<bool> logged[2];
  Choice choice = currentChoice();
  if (!logged[static_cast<int>(choice.backend)].exchange(true, std::memory_order_relaxed)) {
    const char* store =
        choice.backend == KeychainBackend::kSecretService ? "the Secret Service" : "the file store";
    Log("Keychain: items are kept in %s at %s, because %s", store, locationOf(choice.backend),
        choice.reason);
  }
  return storeOf(choice.backend);
}

}  // namespace keychain_internal
}  // namespace nk
