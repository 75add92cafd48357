// Tests of the choice of store: NK_KEYCHAIN_BACKEND, the automatic choice, the status
// nkutil shows and the log line of the first use.

#include "nk/keychain/keychain_backend.hpp"

#include <gtest/gtest.h>

#include "nk/keychain/keychain_test_support_internal.hpp"

namespace nk {
namespace {

using test::ScopedEnv;
using test::TempDir;

TEST(KeychainBackend, ChosenByTheEnvironment) {
  TempDir dir;
  ScopedEnv data("XDG_DATA_HOME", dir.path());
  {  // the file store, explicitly, answering in its folder
    ScopedEnv chosen("NK_KEYCHAIN_BACKEND", "file");
    EXPECT_EQ(keychainBackend(), KeychainBackend::kFileStore);
    KeychainBackendStatus status = keychainBackendStatus();
    EXPECT_EQ(status.name, "file");
    EXPECT_EQ(status.reason, "NK_KEYCHAIN_BACKEND=file");
    EXPECT_EQ(status.location, dir.path() + "/nkutils/keychain");
    EXPECT_TRUE(status.answering);
  }
  {  // the Secret Service, explicitly, whether or not there is one
    ScopedEnv chosen("NK_KEYCHAIN_BACKEND", "secret-service");
    EXPECT_EQ(keychainBackend(), KeychainBackend::kSecretService);
    KeychainBackendStatus status = keychainBackendStatus();
    EXPECT_EQ(status.name, "secret-service");
    EXPECT_EQ(status.answering, test::secretServiceOffered());
  }
  {  // unset, empty or unknown: the bus decides, and an unknown name is reported
    const KeychainBackend automatic = test::secretServiceOffered() ? KeychainBackend::kSecretService
                                                                   : KeychainBackend::kFileStore;
    ScopedEnv unset("NK_KEYCHAIN_BACKEND", std::nullopt);
    EXPECT_EQ(keychainBackend(), automatic);
    ScopedEnv empty("NK_KEYCHAIN_BACKEND", "");
    EXPECT_EQ(keychainBackend(), automatic);
    ScopedEnv unknown("NK_KEYCHAIN_BACKEND", "kwallet");
    EXPECT_EQ(keychainBackend(), automatic);
    EXPECT_EQ(keychainBackendStatus().reason.rfind("NK_KEYCHAIN_BACKEND=\"kwallet\" names no", 0),
              0u);
  }
  {  // a file store without a home folder does not answer
    ScopedEnv chosen("NK_KEYCHAIN_BACKEND", "file");
    ScopedEnv noData("XDG_DATA_HOME", std::nullopt);
    ScopedEnv noHome("HOME", "relative");
    EXPECT_FALSE(keychainBackendStatus().answering);
  }
}

// The first item operation on a store logs the choice; run in a fresh process so that
// it is the first.
TEST(KeychainBackendDeathTest, FirstUseIsLogged) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  ScopedEnv data("XDG_DATA_HOME", dir.path());
  ScopedEnv chosen("NK_KEYCHAIN_BACKEND", "file");
  auto twoOperations = [] {
    auto query = Dictionary::make({{kSecClass(), kSecClassGenericPassword()},
                                   {kSecAttrService(), test::S("com.example.app")},
                                   {kSecAttrAccount(), test::S("a")}});
    SecItemCopyMatching(query.get(), nullptr);
    SecItemCopyMatching(query.get(), nullptr);
    std::fputs("done\n", stderr);
    std::exit(0);
  };
  EXPECT_EXIT(twoOperations(), testing::ExitedWithCode(0),
              "Keychain: items are kept in the file store at .*/nkutils/keychain, because "
              "NK_KEYCHAIN_BACKEND=file\n(done)");
}

}  // namespace
}  // namespace nk
