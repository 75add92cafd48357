// A fixture that runs a test on one store, chosen through NK_KEYCHAIN_BACKEND, with
// items of the test's own service deleted afterwards.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nk/foundation/data.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/keychain/keychain_backend.hpp"
#include "nk/keychain/sec_item.hpp"
#include "nk/keychain/secret_service_item_store_internal.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk::test {

inline Ref<String> S(std::string_view utf8) { return String::fromUTF8(utf8); }

inline Ref<Data> bytes(std::string_view text) { return Data::fromBytes(text.data(), text.size()); }

// A service name no other test (or test process) uses.
inline std::string uniqueService(std::string_view stem) {
  static std::atomic<int> counter{0};
  return "org.nkutils.test." + std::string(stem) + "." + std::to_string(::getpid()) + "." +
         std::to_string(counter.fetch_add(1));
}

// NK_REQUIRE_SECRET_SERVICE=1 (CI) turns a skip for want of a Secret Service into a failure.
inline bool secretServiceRequired() {
  const char* required = std::getenv("NK_REQUIRE_SECRET_SERVICE");
  return required && std::string_view(required) == "1";
}

inline bool secretServiceOffered() {
  static const bool offered = keychain_internal::SecretServiceItemStore::isOfferedOnSessionBus();
  return offered;
}

inline std::string backendName(const testing::TestParamInfo<KeychainBackend>& info) {
  return info.param == KeychainBackend::kSecretService ? "SecretService" : "FileStore";
}

inline const auto kBothBackends =
    testing::Values(KeychainBackend::kFileStore, KeychainBackend::kSecretService);

class BackendTest : public testing::TestWithParam<KeychainBackend> {
 protected:
  void SetUp() override {
    if (GetParam() == KeychainBackend::kSecretService && !secretServiceOffered()) {
      if (secretServiceRequired()) {
        FAIL() << "NK_REQUIRE_SECRET_SERVICE=1 but the session bus has no Secret Service";
      }
      GTEST_SKIP() << "no Secret Service on the session bus; run under with-secret-service";
    }
    backend_.emplace("NK_KEYCHAIN_BACKEND",
                     GetParam() == KeychainBackend::kSecretService ? "secret-service" : "file");
    dataHome_.emplace("XDG_DATA_HOME", dir_ / "data");
  }

  void TearDown() override {
    for (const auto& [service, account] : made_) {
      SecItemDelete(query(service, account).get());
    }
  }

  // The base query of an item that is deleted after the test.
  Ref<MutableDictionary> item(const std::string& account) { return item(service_, account); }
  Ref<MutableDictionary> item(const std::string& service, const std::string& account) {
    made_.emplace_back(service, account);
    return query(service, account);
  }

  static Ref<MutableDictionary> query(const std::string& service, const std::string& account) {
    return MutableDictionary::make({{kSecClass(), kSecClassGenericPassword()},
                                    {kSecAttrService(), S(service)},
                                    {kSecAttrAccount(), S(account)}});
  }

  const std::string service_ = uniqueService("items");
  TempDir dir_;

 private:
  std::optional<ScopedEnv> backend_;
  std::optional<ScopedEnv> dataHome_;
  std::vector<std::pair<std::string, std::string>> made_;
};

}  // namespace nk::test
