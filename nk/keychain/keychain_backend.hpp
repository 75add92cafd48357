// Which secret store the keychain item services use, and why: the Secret Service of
// the session bus, or the file store for machines without one.
//
// The file store (`$XDG_DATA_HOME/nkutils/keychain`, one 0600 file per service in a
// 0700 folder) protects values by file permissions only: they are not encrypted, so
// root, a backup or a stolen disk reveals them. Use it where no Secret Service runs.
#pragma once

#include <string>

namespace nk {

enum class KeychainBackend { kSecretService, kFileStore };

// NK_KEYCHAIN_BACKEND, read on every call, picks one explicitly: "secret-service" or
// "file". Otherwise (unset, empty or another value) the Secret Service when the
// session bus has "org.freedesktop.secrets" owned or activatable, else the file
// store; the bus is asked once per process. The first item operation on each store
// logs which store it is and why.
KeychainBackend keychainBackend();

// What `nkutil status` shows.
struct KeychainBackendStatus {
  KeychainBackend backend;
  // "secret-service" or "file", as NK_KEYCHAIN_BACKEND names them.
  std::string name;
  // How the store was chosen, e.g. "the session bus offers org.freedesktop.secrets".
  std::string reason;
  // The file store's folder; for the Secret Service, its bus name.
  std::string location;
  // True when looking up an item that does not exist got a clean answer.
  bool answering;
};

// The store keychainBackend() chooses, asked a question now to see whether it
// answers. May wait for the Secret Service.
KeychainBackendStatus keychainBackendStatus();

}  // namespace nk
