// Keychain round trips (add, read back, delete one item) per second: the file store
// beside a plain write + fsync + rename of the same bytes, and the Secret Service
// beside libsecret's own store, lookup and clear of the same data, in the same run.
// The Secret Service cases need one on the session bus: run under
// scripts/with-secret-service.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libsecret/secret.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "nk/foundation/data.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/keychain/keychain_utils.hpp"
#include "nk/keychain/sec_item.hpp"
#include "nk/keychain/secret_service_item_store_internal.hpp"

namespace {

// A credential-sized value; text, so libsecret's text calls can carry it unchanged.
const std::string kValue = [] {
  std::string value;
  for (int i = 0; i < 384; ++i) value += static_cast<char>('A' + i % 26);
  return value;
}();

// A scratch folder, used as XDG_DATA_HOME and for the plain files.
const std::string& scratch() {
  static const std::string folder = [] {
    std::string pattern = std::filesystem::temp_directory_path().string() + "/nk-kc-bench-XXXXXX";
    return std::string(::mkdtemp(pattern.data()));
  }();
  return folder;
}

void useBackend(const char* backend) {
  ::setenv("NK_KEYCHAIN_BACKEND", backend, 1);
  ::setenv("XDG_DATA_HOME", scratch().c_str(), 1);
}

bool secretServiceMissing(benchmark::State& state) {
  if (nk::keychain_internal::SecretServiceItemStore::isOfferedOnSessionBus()) return false;
  state.SkipWithError("no Secret Service on the session bus (use scripts/with-secret-service)");
  return true;
}

void countRoundTrips(benchmark::State& state) {
  state.counters["round_trips/s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// Add, read back and delete one item through the item services.
void itemRoundTrips(benchmark::State& state) {
  auto query = nk::MutableDictionary::make(
      {{nk::kSecClass(), nk::kSecClassGenericPassword()},
       {nk::kSecAttrService(), nk::String::fromUTF8("org.nkutils.bench")},
       {nk::kSecAttrAccount(), nk::String::fromUTF8("person@example.com")}});
  auto attributes = nk::MutableDictionary::withDictionary(query.get());
  attributes->setObjectForKey(nk::Data::fromBytes(kValue.data(), kValue.size()),
                              nk::kSecValueData());
  auto search = nk::MutableDictionary::withDictionary(query.get());
  search->setObjectForKey(nk::Number::yes(), nk::kSecReturnData());
  search->setObjectForKey(nk::kSecMatchLimitOne(), nk::kSecMatchLimit());
  for (auto _ : state) {
    nk::Id result;
    if (nk::SecItemAdd(attributes.get()) != nk::errSecSuccess ||
        nk::SecItemCopyMatching(search.get(), &result) != nk::errSecSuccess ||
        nk::SecItemDelete(query.get()) != nk::errSecSuccess) {
      state.SkipWithError("an item operation failed");
      break;
    }
    benchmark::DoNotOptimize(result);
  }
  countRoundTrips(state);
}

void BM_FileStore_ItemServices(benchmark::State& state) {
  useBackend("file");
  itemRoundTrips(state);
}
BENCHMARK(BM_FileStore_ItemServices)->UseRealTime();

// Peer: the same bytes written to a temporary file, fsynced and renamed into place,
// read back, and unlinked. With `durable`, the folder is fsynced after the rename and
// after the unlink too, as the file store does so that neither can be lost in a crash.
void plainFileRoundTrips(benchmark::State& state, bool durable) {
  const std::string folder = scratch() + "/plain";
  std::filesystem::create_directories(folder);
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::string temporary = folder + "/.item.tmp", path = folder + "/item";
  std::vector<char> back(kValue.size());
  for (auto _ : state) {
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok =
        fd >= 0 && ::write(fd, kValue.data(), kValue.size()) == static_cast<ssize_t>(kValue.size());
    ok = ok && ::fsync(fd) == 0;
    if (fd >= 0) ::close(fd);
    ok = ok && ::rename(temporary.c_str(), path.c_str()) == 0 && (!durable || ::fsync(dir) == 0);
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ok = ok && fd >= 0 && ::read(fd, back.data(), back.size()) == static_cast<ssize_t>(back.size());
    if (fd >= 0) ::close(fd);
    ok = ok && ::unlink(path.c_str()) == 0 && (!durable || ::fsync(dir) == 0);
    if (!ok) {
      state.SkipWithError("plain file operations failed");
      break;
    }
    benchmark::DoNotOptimize(back.data());
  }
  ::close(dir);
  countRoundTrips(state);
}

void BM_FileStore_PlainWriteFsyncRename(benchmark::State& state) {
  plainFileRoundTrips(state, false);
}
BENCHMARK(BM_FileStore_PlainWriteFsyncRename)->UseRealTime();

void BM_FileStore_PlainWriteFsyncRenameFsyncFolder(benchmark::State& state) {
  plainFileRoundTrips(state, true);
}
BENCHMARK(BM_FileStore_PlainWriteFsyncRenameFsyncFolder)->UseRealTime();

void BM_SecretService_ItemServices(benchmark::State& state) {
  if (secretServiceMissing(state)) return;
  useBackend("secret-service");
  itemRoundTrips(state);
}
BENCHMARK(BM_SecretService_ItemServices)->UseRealTime();

// Peer: libsecret's own calls with a schema of the same two attributes.
void BM_SecretService_LibsecretStoreLookupClear(benchmark::State& state) {
  if (secretServiceMissing(state)) return;
  static const SecretSchema schema = {"org.nkutils.bench.Peer",
                                      SECRET_SCHEMA_NONE,
                                      {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                       {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                       {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                      0,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr,
                                      nullptr};
  for (auto _ : state) {
    GError* error = nullptr;
    secret_password_store_sync(&schema, SECRET_COLLECTION_DEFAULT,
                               "org.nkutils.bench \u2014 person@example.com", kValue.c_str(),
                               nullptr, &error, "service", "org.nkutils.bench", "account",
                               "person@example.com", nullptr);
    gchar* back = error ? nullptr
                        : secret_password_lookup_sync(&schema, nullptr, &error, "service",
                                                      "org.nkutils.bench", "account",
                                                      "person@example.com", nullptr);
    gboolean cleared =
        back && secret_password_clear_sync(&schema, nullptr, &error, "service", "org.nkutils.bench",
                                           "account", "person@example.com", nullptr);
    secret_password_free(back);
    if (error || !cleared) {
      if (error) g_error_free(error);
      state.SkipWithError("libsecret failed");
      break;
    }
  }
  countRoundTrips(state);
}
BENCHMARK(BM_SecretService_LibsecretStoreLookupClear)->UseRealTime();

// For reference: what a client pays per stored object, archive and delete-then-add
// included.
void BM_FileStore_NKKeychainUtils(benchmark::State& state) {
  useBackend("file");
  const std::string bundle = scratch() + "/app";
  std::filesystem::create_directories(bundle);
  FILE* info = std::fopen((bundle + "/Info.plist").c_str(), "w");
  std::fputs(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
      "<key>CFBundleIdentifier</key><string>org.nkutils.bench</string></dict></plist>\n",
      info);
  std::fclose(info);
  ::setenv("NK_MAIN_BUNDLE", bundle.c_str(), 1);
  auto key = nk::String::fromUTF8("credentials");
  auto object =
      nk::Dictionary::make({{nk::String::fromUTF8("token"), nk::String::fromUTF8(kValue)}});
  for (auto _ : state) {
    bool ok = nk::NKKeychainUtils::setKeychainObjectForKey(object.get(), key.get()) &&
              nk::NKKeychainUtils::getKeychainObjectForKeyOfClassType(key.get(), nullptr) &&
              nk::NKKeychainUtils::deleteKeychainObjectForKey(key.get());
    if (!ok) {
      state.SkipWithError("NKKeychainUtils failed");
      break;
    }
  }
  countRoundTrips(state);
}
BENCHMARK(BM_FileStore_NKKeychainUtils)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove_all(scratch());
  return 0;
}
