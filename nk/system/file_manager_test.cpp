// Tests of FileManager: existence, folder creation, listing, removal that never
// follows links, enumeration, attributes, resource values and the error values.
#include "nk/system/file_manager.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "nk/foundation/number.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::exists;
using test::TempDir;
using test::writeFile;

Ref<String> S(const std::string& text) { return String::fromUTF8(text); }
FileManager* fm() { return FileManager::defaultManager(); }

std::vector<std::string> names(const Array* array) {
  std::vector<std::string> out;
  for (const auto& item : *array) out.push_back(cast<String>(item)->utf8());
  return out;
}

long underlyingErrno(const Ref<Error>& error) {
  auto underlying = error ? error->underlyingError() : nullptr;
  return underlying ? underlying->code() : -1;
}

// The code of a reported error; 0 when none was reported.
long codeOf(const Ref<Error>& error) { return error ? error->code() : 0; }

std::string pathOf(const Ref<Error>& error) {
  auto path = error ? error->userInfo()->objectForKeyOfClass<String>(kFilePathErrorKey()) : nullptr;
  return path ? path->utf8() : "<none>";
}

TEST(FileManagerExists, DirectoryFlagAndLinks) {
  TempDir dir;
  writeFile(dir / "file", "x");
  ::mkdir((dir / "folder").c_str(), 0700);
  ::symlink((dir / "folder").c_str(), (dir / "link").c_str());
  ::symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str());
  // The flag starts as `initial`; a missing item (a dangling link too) leaves it
  // untouched, and links are followed, so a link to a folder is a folder.
  struct Row {
    const char* name;
    bool initial, exists, flag;
  } rows[] = {{"missing", true, false, true}, {"missing", false, false, false},
              {"file", true, true, false},    {"folder", false, true, true},
              {"link", false, true, true},    {"dangling", true, false, true}};
  for (const Row& r : rows) {
    bool flag = r.initial;
    EXPECT_EQ(fm()->fileExistsAtPath(S(dir / r.name).get(), &flag), r.exists) << r.name;
    EXPECT_EQ(flag, r.flag) << r.name;
  }
  EXPECT_FALSE(fm()->fileExistsAtPath(S(dir / "dangling").get()));
  EXPECT_FALSE(fm()->fileExistsAtPath(nullptr));
  EXPECT_FALSE(fm()->fileExistsAtPath(String::empty()));
}

TEST(FileManagerCreate, IntermediatesAndExistingItems) {
  TempDir dir;
  Ref<Error> error;  // without intermediates a missing parent fails with 4 / ENOENT
  EXPECT_FALSE(fm()->createDirectoryAtPath(S(dir / "a/b").get(), false, nullptr, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain()->utf8(), "NSCocoaErrorDomain");
  EXPECT_EQ(error->code(), kFileNoSuchFileError);
  EXPECT_EQ(underlyingErrno(error), ENOENT);
  EXPECT_EQ(error->underlyingError()->domain()->utf8(), "NSPOSIXErrorDomain");
  EXPECT_TRUE(fm()->createDirectoryAtPath(S(dir / "a/b/c").get(), true, nullptr, nullptr));
  EXPECT_TRUE(std::filesystem::is_directory(dir / "a/b/c"));
  // An existing folder: success with intermediates, 516 without.
  EXPECT_TRUE(fm()->createDirectoryAtPath(S(dir / "a/b").get(), true, nullptr, nullptr));
  EXPECT_FALSE(fm()->createDirectoryAtPath(S(dir / "a/b").get(), false, nullptr, &error));
  EXPECT_EQ(codeOf(error), kFileWriteFileExistsError);
  // An existing file fails either way and carries its path.
  writeFile(dir / "file", "x");
  for (bool intermediates : {false, true}) {
    error = nullptr;
    EXPECT_FALSE(
        fm()->createDirectoryAtPath(S(dir / "file").get(), intermediates, nullptr, &error));
    EXPECT_EQ(codeOf(error), kFileWriteFileExistsError);
    EXPECT_EQ(pathOf(error), dir / "file");
  }
  EXPECT_FALSE(fm()->createDirectoryAtPath(S(dir / "file/x/y").get(), true, nullptr, nullptr));
  // Requested permissions are applied exactly, past the umask.
  auto attributes = Dictionary::make({{kFilePosixPermissionsKey(), Number::withInt(0700)}});
  ASSERT_TRUE(fm()->createDirectoryAtPath(S(dir / "p/q").get(), true, attributes.get(), nullptr));
  struct stat st;
  ASSERT_EQ(::stat((dir / "p/q").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  // The URL form, and a non-file URL refused.
  EXPECT_TRUE(fm()->createDirectoryAtURL(URL::fileURLWithPath(dir / "u/v", true).get(), true,
                                         nullptr, nullptr));
  EXPECT_TRUE(exists(dir / "u/v"));
  EXPECT_FALSE(
      fm()->createDirectoryAtURL(URL::fromString("http://h/x").get(), true, nullptr, &error));
  EXPECT_EQ(codeOf(error), kFileWriteUnsupportedSchemeError);
}

TEST(FileManagerCreate, ConcurrentCreatorsAllSucceed) {
  TempDir dir;
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      if (!fm()->createDirectoryAtPath(S(dir / "x/y/z/w").get(), true, nullptr, nullptr)) {
        ++failures;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
}

TEST(FileManagerList, NamesUrlsAndErrors) {
  TempDir dir;
  writeFile(dir / "b", "");
  writeFile(dir / ".hidden", "");
  ::mkdir((dir / "a").c_str(), 0700);
  // Names: hidden included, no dot entries, byte order.
  auto list = fm()->contentsOfDirectoryAtPath(S(dir.path()).get(), nullptr);
  ASSERT_TRUE(list);
  EXPECT_EQ(names(list.get()), (std::vector<std::string>{".hidden", "a", "b"}));
  // URLs: folders end in "/", hidden files skipped on request.
  auto url = URL::fileURLWithPath(dir.path(), true);
  list = fm()->contentsOfDirectoryAtURL(url.get(), nullptr, kDirectoryEnumerationSkipsHiddenFiles,
                                        nullptr);
  ASSERT_TRUE(list);
  ASSERT_EQ(list->count(), 2u);
  EXPECT_TRUE(cast<URL>(list->objectAtIndex(0))->absoluteString()->utf8().ends_with("/a/"));
  EXPECT_TRUE(cast<URL>(list->objectAtIndex(1))->absoluteString()->utf8().ends_with("/b"));
  EXPECT_EQ(fm()->contentsOfDirectoryAtURL(url.get(), nullptr, 0, nullptr)->count(), 3u);
  // Missing: 260; a file: 256 with ENOTDIR underneath; an empty folder: empty, not nil.
  Ref<Error> error;
  EXPECT_FALSE(fm()->contentsOfDirectoryAtPath(S(dir / "missing").get(), &error));
  EXPECT_EQ(codeOf(error), kFileReadNoSuchFileError);
  EXPECT_FALSE(fm()->contentsOfDirectoryAtPath(S(dir / "b").get(), &error));
  EXPECT_EQ(codeOf(error), kFileReadUnknownError);
  EXPECT_EQ(underlyingErrno(error), ENOTDIR);
  list = fm()->contentsOfDirectoryAtPath(S(dir / "a").get(), nullptr);
  EXPECT_EQ(list ? list->count() : 99u, 0u);
}

TEST(FileManagerRemove, NeverFollowsLinks) {
  TempDir dir;
  writeFile(dir / "outside/keep.txt", "precious");
  writeFile(dir / "tree/a/file", "x");
  writeFile(dir / "tree/.hidden/deep/file", "x");
  ::symlink((dir / "outside").c_str(), (dir / "tree/a/link-to-outside").c_str());
  ::symlink((dir / "outside/keep.txt").c_str(), (dir / "tree/file-link").c_str());
  // Removing a tree unlinks the links inside it and leaves their targets alone.
  Ref<Error> error;
  EXPECT_TRUE(fm()->removeItemAtPath(S(dir / "tree").get(), &error))
      << error->description()->utf8();
  EXPECT_FALSE(exists(dir / "tree"));
  EXPECT_TRUE(exists(dir / "outside/keep.txt"));
  // A link to a folder, by path or by a URL with a trailing "/": only the link goes.
  ::symlink((dir / "outside").c_str(), (dir / "top-link").c_str());
  ::symlink((dir / "outside").c_str(), (dir / "url-link").c_str());
  EXPECT_TRUE(fm()->removeItemAtPath(S(dir / "top-link").get(), nullptr));
  EXPECT_TRUE(fm()->removeItemAtURL(URL::fileURLWithPath(dir / "url-link", true).get(), nullptr));
  EXPECT_FALSE(exists(dir / "top-link"));
  EXPECT_FALSE(exists(dir / "url-link"));
  EXPECT_TRUE(exists(dir / "outside/keep.txt"));
  ::symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str());
  EXPECT_TRUE(fm()->removeItemAtPath(S(dir / "dangling").get(), nullptr));
  EXPECT_FALSE(exists(dir / "dangling"));
  EXPECT_FALSE(fm()->removeItemAtPath(S(dir / "missing").get(), &error));
  EXPECT_EQ(codeOf(error), kFileNoSuchFileError);
  // A NUL in a path names no file: the system would read "tree2/..\0x" as the
  // folder above tree2.
  writeFile(dir / "tree2/file", "x");
  const std::string withNul = dir / "tree2/.." + std::string(1, '\0') + "x";
  EXPECT_FALSE(fm()->fileExistsAtPath(S(withNul).get()));
  EXPECT_FALSE(fm()->removeItemAtPath(S(withNul).get(), &error));
  EXPECT_EQ(codeOf(error), kFileNoSuchFileError);
  EXPECT_FALSE(fm()->removeItemAtURL(URL::fileURLWithPath(S(withNul).get(), false).get(), nullptr));
  EXPECT_TRUE(exists(dir / "outside/keep.txt"));
  EXPECT_TRUE(exists(dir / "tree2/file"));
}

TEST(FileManagerRemove, TreesDeeperThanTheDescriptorLimit) {
  TempDir dir;
  std::string path = dir / "deep";
  for (int level = 0; level < 300; ++level) {
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    path += "/d";
  }
  writeFile(path + "-file", "x");
  struct rlimit saved;
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  struct rlimit low = saved;
  low.rlim_cur = 64;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  Ref<Error> error;
  const bool removed = fm()->removeItemAtPath(S(dir / "deep").get(), &error);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  EXPECT_TRUE(removed) << (error ? error->description()->utf8() : "");
  EXPECT_FALSE(exists(dir / "deep"));
}

TEST(FileManagerRemove, ReportsTheItemThatCannotGo) {
  if (::geteuid() == 0) GTEST_SKIP() << "root ignores folder permissions";
  TempDir dir;
  writeFile(dir / "tree/locked/file", "x");
  ::chmod((dir / "tree/locked").c_str(), 0500);
  Ref<Error> error;
  EXPECT_FALSE(fm()->removeItemAtPath(S(dir / "tree").get(), &error));
  ::chmod((dir / "tree/locked").c_str(), 0700);
  EXPECT_EQ(codeOf(error), kFileWriteNoPermissionError);
  EXPECT_EQ(pathOf(error), dir / "tree/locked/file");
}

TEST(FileManagerEnumerate, PreOrderWithoutDescendingLinks) {
  TempDir dir;
  writeFile(dir / "outside/secret", "x");
  writeFile(dir / "root/a/x", "");
  writeFile(dir / "root/a/y/z", "");
  writeFile(dir / "root/b", "");
  writeFile(dir / "root/.h/inner", "");
  ::symlink((dir / "outside").c_str(), (dir / "root/link").c_str());
  auto root = URL::fileURLWithPath(dir / "root", true);
  using Paths = std::vector<std::string>;
  // The paths below the root a walk yields with their levels, skipping the
  // descendants of `skip`.
  std::vector<size_t> levels;
  auto walk = [&](unsigned options, const std::string& skip = "") {
    auto walker = fm()->enumeratorAtURL(root.get(), nullptr, options, nullptr);
    Paths seen;
    levels.clear();
    while (auto url = walker->nextObject()) {
      seen.push_back(url->path()->utf8().substr((dir / "root/").size()));
      levels.push_back(walker->level());
      if (seen.back() == skip) walker->skipDescendants();
    }
    return seen;
  };
  // folders come before their contents; the link is listed, not entered
  EXPECT_EQ(walk(0), (Paths{".h", ".h/inner", "a", "a/x", "a/y", "a/y/z", "b", "link"}));
  EXPECT_EQ(levels, (std::vector<size_t>{1, 2, 1, 2, 2, 3, 1, 1}));
  // hidden files skipped, with what is inside them
  EXPECT_EQ(walk(kDirectoryEnumerationSkipsHiddenFiles),
            (Paths{"a", "a/x", "a/y", "a/y/z", "b", "link"}));
  // skipDescendants on one folder; the option for all of them
  EXPECT_EQ(walk(kDirectoryEnumerationSkipsHiddenFiles, "a"), (Paths{"a", "b", "link"}));
  EXPECT_EQ(fm()->enumeratorAtURL(root.get(), nullptr,
                                  kDirectoryEnumerationSkipsSubdirectoryDescendants, nullptr)
                ->allObjects()
                ->count(),
            4u);
  // A folder URL ends in "/", a file URL does not.
  auto walker = fm()->enumeratorAtURL(root.get(), nullptr, 0, nullptr);
  EXPECT_TRUE(walker->nextObject()->absoluteString()->utf8().ends_with("/.h/"));
  EXPECT_TRUE(walker->nextObject()->absoluteString()->utf8().ends_with("/.h/inner"));
  // A missing root reports to the handler once and yields nothing.
  std::vector<long> reports;
  walker = fm()->enumeratorAtURL(URL::fileURLWithPath(dir / "missing", true).get(), nullptr, 0,
                                 [&](const URL*, const Error* error) {
                                   reports.push_back(error->code());
                                   return true;
                                 });
  EXPECT_FALSE(walker->nextObject());
  EXPECT_EQ(reports, std::vector<long>{kFileReadNoSuchFileError});
}

TEST(FileManagerAttributes, SizeTypeAndDate) {
  TempDir dir;
  writeFile(dir / "file", "12345");
  ::symlink((dir / "file").c_str(), (dir / "link").c_str());
  auto attributes = fm()->attributesOfItemAtPath(S(dir / "file").get(), nullptr);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->objectForKeyOfClass<Number>(kFileSizeKey())->longLongValue(), 5);
  EXPECT_TRUE(nk::isEqual(attributes->objectForKey(kFileTypeKey()).get(), kFileTypeRegular()));
  EXPECT_TRUE(attributes->objectForKey(kFileModificationDateKey()));
  auto link = fm()->attributesOfItemAtPath(S(dir / "link").get(), nullptr);
  EXPECT_TRUE(nk::isEqual(link->objectForKey(kFileTypeKey()).get(), kFileTypeSymbolicLink()));
  Ref<Error> error;
  EXPECT_FALSE(fm()->attributesOfItemAtPath(S(dir / "missing").get(), &error));
  EXPECT_EQ(codeOf(error), kFileReadNoSuchFileError);
}

// The value of a resource key as "YES", "NO", or "<failed>" when the read fails.
std::string resource(const URL* url, const String* key) {
  Id value;
  if (!getResourceValue(url, &value, key, nullptr)) return "<failed>";
  return nk::isEqual(value.get(), Number::yes())  ? "YES"
         : nk::isEqual(value.get(), Number::no()) ? "NO"
                                                  : "<other>";
}

TEST(FileManagerResourceValues, IsDirectoryAndBackupMark) {
  TempDir dir;
  writeFile(dir / "file", "x");
  auto file = URL::fileURLWithPath(dir / "file", false);
  const std::string filePath = dir / "file";
  EXPECT_EQ(resource(URL::fileURLWithPath(dir.path(), true).get(), kURLIsDirectoryKey()), "YES");
  EXPECT_EQ(resource(file.get(), kURLIsDirectoryKey()), "NO");
  Id value;  // a missing item: false and 260
  Ref<Error> error;
  auto missing = URL::fileURLWithPath(dir / "missing", false);
  EXPECT_FALSE(getResourceValue(missing.get(), &value, kURLIsDirectoryKey(), &error));
  EXPECT_EQ(codeOf(error), kFileReadNoSuchFileError);
  EXPECT_FALSE(
      setResourceValue(missing.get(), Number::no(), kURLIsExcludedFromBackupKey(), nullptr));
  error = nullptr;  // other keys cannot be written
  EXPECT_FALSE(setResourceValue(file.get(), Number::yes(), kURLIsDirectoryKey(), &error));
  EXPECT_TRUE(error);
  if (::setxattr(filePath.c_str(), "user.nk.probe", "1", 1, 0) != 0) {
    GTEST_SKIP() << "this file system keeps no user extended attributes";
  }
  // Round trip: YES writes "false", NO removes the attribute.
  EXPECT_EQ(resource(file.get(), kURLIsExcludedFromBackupKey()), "NO");
  ASSERT_TRUE(setResourceValue(file.get(), Number::yes(), kURLIsExcludedFromBackupKey(), nullptr));
  char buffer[16] = {};
  ssize_t size = ::getxattr(filePath.c_str(), kBackupAttributeName, buffer, sizeof buffer);
  EXPECT_EQ(std::string(buffer, size > 0 ? size : 0), "false");
  EXPECT_EQ(resource(file.get(), kURLIsExcludedFromBackupKey()), "YES");
  ASSERT_TRUE(setResourceValue(file.get(), Number::no(), kURLIsExcludedFromBackupKey(), nullptr));
  EXPECT_LT(::getxattr(filePath.c_str(), kBackupAttributeName, buffer, sizeof buffer), 0);
  EXPECT_EQ(resource(file.get(), kURLIsExcludedFromBackupKey()), "NO");
  // a "true" mark left by another tool reads as not excluded
  ::setxattr(filePath.c_str(), kBackupAttributeName, "true", 4, 0);
  EXPECT_EQ(resource(file.get(), kURLIsExcludedFromBackupKey()), "NO");
}

TEST(FileError, CodesForReadsAndWrites) {
  struct Case {
    int posix;
    bool writing;
    long code;
  } cases[] = {{ENOENT, true, 4},    {ENOENT, false, 260}, {EACCES, true, 513},
               {EACCES, false, 257}, {EEXIST, true, 516},  {EIO, true, 512},
               {EIO, false, 256},    {ENOSPC, true, 640},  {EROFS, true, 642}};
  for (const auto& c : cases) {
    auto error = fileError(c.posix, NK_STR("/p"), c.writing);
    EXPECT_EQ(error->code(), c.code) << "errno " << c.posix << " writing " << c.writing;
    EXPECT_EQ(underlyingErrno(error), c.posix);
  }
  EXPECT_FALSE(fileError(ENOENT, nullptr, true)->userInfo()->objectForKey(kFilePathErrorKey()));
}

}  // namespace
}  // namespace nk
