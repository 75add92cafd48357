// Tests of FileManager: existence, folder creation, listing, removal that never
// follows links, enumeration, attributes, resource values and the error values.
#include "nk/system/file_manager.hpp"

#include <gtest/gtest.h>
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

long underlyingErrno(const Error* error) {
  auto underlying = error->underlyingError();
  return underlying ? underlying->code() : -1;
}

TEST(FileManagerExists, DirectoryFlagAndLinks) {
  TempDir dir;
  writeFile(dir / "file", "x");
  ::mkdir((dir / "folder").c_str(), 0700);
  ::symlink((dir / "folder").c_str(), (dir / "link").c_str());
  ::symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str());
  {  // a missing path leaves the flag untouched, whatever it held
    bool flag = true;
    EXPECT_FALSE(fm()->fileExistsAtPath(S(dir / "missing").get(), &flag));
    EXPECT_TRUE(flag);
    flag = false;
    EXPECT_FALSE(fm()->fileExistsAtPath(S(dir / "missing").get(), &flag));
    EXPECT_FALSE(flag);
  }
  {  // files and folders set it
    bool flag = true;
    EXPECT_TRUE(fm()->fileExistsAtPath(S(dir / "file").get(), &flag));
    EXPECT_FALSE(flag);
    EXPECT_TRUE(fm()->fileExistsAtPath(S(dir / "folder").get(), &flag));
    EXPECT_TRUE(flag);
  }
  {  // links are followed: a link to a folder is a folder, a dangling one does
    // not exist
    bool flag = false;
    EXPECT_TRUE(fm()->fileExistsAtPath(S(dir / "link").get(), &flag));
    EXPECT_TRUE(flag);
    EXPECT_FALSE(fm()->fileExistsAtPath(S(dir / "dangling").get()));
  }
  {  // nil and empty paths do not exist
    EXPECT_FALSE(fm()->fileExistsAtPath(nullptr));
    EXPECT_FALSE(fm()->fileExistsAtPath(String::empty()));
  }
}

TEST(FileManagerCreate, IntermediatesAndExistingItems) {
  TempDir dir;
  {  // without intermediates a missing parent fails with 4 / ENOENT
    Ref<Error> error;
    EXPECT_FALSE(fm()->createDirectoryAtPath(S(dir / "a/b").get(), false, nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain()->utf8(), "NSCocoaErrorDomain");
    EXPECT_EQ(error->code(), kFileNoSuchFileError);
    EXPECT_EQ(underlyingErrno(error.get()), ENOENT);
    EXPECT_EQ(error->underlyingError()->domain()->utf8(), "NSPOSIXErrorDomain");
  }
  {  // with intermediates every level is made
    Ref<Error> error;
    EXPECT_TRUE(fm()->createDirectoryAtPath(S(dir / "a/b/c").get(), true, nullptr, &error));
    EXPECT_FALSE(error);
    bool flag = false;
    EXPECT_TRUE(fm()->fileExistsAtPath(S(dir / "a/b/c").get(), &flag));
    EXPECT_TRUE(flag);
  }
  {  // an existing folder: success with intermediates, 516 without
    EXPECT_TRUE(fm()->createDirectoryAtPath(S(dir / "a/b").get(), true, nullptr, nullptr));
    Ref<Error> error;
    EXPECT_FALSE(fm()->createDirectoryAtPath(S(dir / "a/b").get(), false, nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), kFileWriteFileExistsError);
  }
  {  // an existing file fails either way and carries its path
    writeFile(dir / "file", "x");
    for (bool intermediates : {false, true}) {
      Ref<Error> error;
      EXPECT_FALSE(
          fm()->createDirectoryAtPath(S(dir / "file").get(), intermediates, nullptr, &error));
      ASSERT_TRUE(error);
      EXPECT_EQ(error->code(), kFileWriteFileExistsError);
      auto path = error->userInfo()->objectForKeyOfClass<String>(kFilePathErrorKey());
      ASSERT_TRUE(path);
      EXPECT_EQ(path->utf8(), dir / "file");
    }
  }
  {  // a file in the middle of the path stops the intermediates
    Ref<Error> error;
    EXPECT_FALSE(fm()->createDirectoryAtPath(S(dir / "file/x/y").get(), true, nullptr, &error));
    EXPECT_TRUE(error);
  }
  {  // requested permissions are applied exactly, past the umask
    auto attributes = Dictionary::make({{kFilePosixPermissionsKey(), Number::withInt(0700)}});
    ASSERT_TRUE(fm()->createDirectoryAtPath(S(dir / "p/q").get(), true, attributes.get(), nullptr));
    struct stat st;
    ASSERT_EQ(::stat((dir / "p/q").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
  }
  {  // the URL form, and a non-file URL refused
    auto url = URL::fileURLWithPath(dir / "u/v", true);
    EXPECT_TRUE(fm()->createDirectoryAtURL(url.get(), true, nullptr, nullptr));
    EXPECT_TRUE(exists(dir / "u/v"));
    Ref<Error> error;
    EXPECT_FALSE(
        fm()->createDirectoryAtURL(URL::fromString("http://h/x").get(), true, nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), kFileWriteUnsupportedSchemeError);
  }
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
  {  // names: hidden included, no dot entries, byte order
    Ref<Error> error;
    auto list = fm()->contentsOfDirectoryAtPath(S(dir.path()).get(), &error);
    ASSERT_TRUE(list);
    EXPECT_EQ(names(list.get()), (std::vector<std::string>{".hidden", "a", "b"}));
  }
  {  // URLs: folders end in "/", hidden files skipped on request
    auto url = URL::fileURLWithPath(dir.path(), true);
    auto list = fm()->contentsOfDirectoryAtURL(url.get(), nullptr,
                                               kDirectoryEnumerationSkipsHiddenFiles, nullptr);
    ASSERT_TRUE(list);
    ASSERT_EQ(list->count(), 2u);
    EXPECT_TRUE(cast<URL>(list->objectAtIndex(0))->absoluteString()->utf8().ends_with("/a/"));
    EXPECT_TRUE(cast<URL>(list->objectAtIndex(1))->absoluteString()->utf8().ends_with("/b"));
    EXPECT_EQ(fm()->contentsOfDirectoryAtURL(url.get(), nullptr, 0, nullptr)->count(), 3u);
  }
  {  // a missing folder: nil and 260
    Ref<Error> error;
    EXPECT_FALSE(fm()->contentsOfDirectoryAtPath(S(dir / "missing").get(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), kFileReadNoSuchFileError);
  }
  {  // a file: nil and 256 with ENOTDIR underneath
    Ref<Error> error;
    EXPECT_FALSE(fm()->contentsOfDirectoryAtPath(S(dir / "b").get(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), kFileReadUnknownError);
    EXPECT_EQ(underlyingErrno(error.get()), ENOTDIR);
  }
  {  // an empty folder is an empty array, not nil
    auto list = fm()->contentsOfDirectoryAtPath(S(dir / "a").get(), nullptr);
    ASSERT_TRUE(list);
    EXPECT_EQ(list->count(), 0u);
  }
}

TEST(FileManagerRemove, NeverFollowsLinks) {
  TempDir dir;
  writeFile(dir / "outside/keep.txt", "precious");
  writeFile(dir / "tree/a/file", "x");
  writeFile(dir / "tree/.hidden/deep/file", "x");
  ::symlink((dir / "outside").c_str(), (dir / "tree/a/link-to-outside").c_str());
  ::symlink((dir / "outside/keep.txt").c_str(), (dir / "tree/file-link").c_str());
  {  // removing a tree unlinks the links inside it and leaves their targets
    // alone
    Ref<Error> error;
    EXPECT_TRUE(fm()->removeItemAtPath(S(dir / "tree").get(), &error))
        << error->description()->utf8();
    EXPECT_FALSE(exists(dir / "tree"));
    EXPECT_TRUE(exists(dir / "outside/keep.txt"));
  }
  {  // removing a link to a folder removes only the link
    ::symlink((dir / "outside").c_str(), (dir / "top-link").c_str());
    EXPECT_TRUE(fm()->removeItemAtPath(S(dir / "top-link").get(), nullptr));
    EXPECT_FALSE(exists(dir / "top-link"));
    EXPECT_TRUE(exists(dir / "outside/keep.txt"));
  }
  {  // the same through a URL with a trailing "/"
    ::symlink((dir / "outside").c_str(), (dir / "url-link").c_str());
    auto url = URL::fileURLWithPath(dir / "url-link", true);
    EXPECT_TRUE(fm()->removeItemAtURL(url.get(), nullptr));
    EXPECT_FALSE(exists(dir / "url-link"));
    EXPECT_TRUE(exists(dir / "outside/keep.txt"));
  }
  {  // a dangling link and a plain file
    ::symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str());
    EXPECT_TRUE(fm()->removeItemAtPath(S(dir / "dangling").get(), nullptr));
    EXPECT_FALSE(exists(dir / "dangling"));
    EXPECT_TRUE(fm()->removeItemAtPath(S(dir / "outside/keep.txt").get(), nullptr));
    EXPECT_FALSE(exists(dir / "outside/keep.txt"));
  }
  {  // a missing item fails with 4
    Ref<Error> error;
    EXPECT_FALSE(fm()->removeItemAtPath(S(dir / "missing").get(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), kFileNoSuchFileError);
  }
}

TEST(FileManagerRemove, ReportsTheItemThatCannotGo) {
  if (::geteuid() == 0) GTEST_SKIP() << "root ignores folder permissions";
  TempDir dir;
  writeFile(dir / "tree/locked/file", "x");
  ::chmod((dir / "tree/locked").c_str(), 0500);
  Ref<Error> error;
  EXPECT_FALSE(fm()->removeItemAtPath(S(dir / "tree").get(), &error));
  ::chmod((dir / "tree/locked").c_str(), 0700);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kFileWriteNoPermissionError);
  auto path = error->userInfo()->objectForKeyOfClass<String>(kFilePathErrorKey());
  ASSERT_TRUE(path);
  EXPECT_EQ(path->utf8(), dir / "tree/locked/file");
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
  auto relative = [&](const URL* url) {
    return url->path()->utf8().substr((dir / "root/").size());
  };
  {  // folders come before their contents; the link is listed, not entered
    auto walk = fm()->enumeratorAtURL(root.get(), nullptr, 0, nullptr);
    std::vector<std::string> seen;
    std::vector<size_t> levels;
    while (auto url = walk->nextObject()) {
      seen.push_back(relative(url.get()));
      levels.push_back(walk->level());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{".h", ".h/inner", "a", "a/x", "a/y", "a/y/z", "b",
                                              "link"}));
    EXPECT_EQ(levels, (std::vector<size_t>{1, 2, 1, 2, 2, 3, 1, 1}));
  }
  {  // hidden files skipped, with what is inside them
    auto walk =
        fm()->enumeratorAtURL(root.get(), nullptr, kDirectoryEnumerationSkipsHiddenFiles, nullptr);
    std::vector<std::string> seen;
    while (auto url = walk->nextObject()) seen.push_back(relative(url.get()));
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "a/x", "a/y", "a/y/z", "b", "link"}));
  }
  {  // skipDescendants on one folder; the option for all of them
    auto walk =
        fm()->enumeratorAtURL(root.get(), nullptr, kDirectoryEnumerationSkipsHiddenFiles, nullptr);
    std::vector<std::string> seen;
    while (auto url = walk->nextObject()) {
      seen.push_back(relative(url.get()));
      if (seen.back() == "a") walk->skipDescendants();
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b", "link"}));
    auto flat = fm()->enumeratorAtURL(root.get(), nullptr,
                                      kDirectoryEnumerationSkipsSubdirectoryDescendants, nullptr);
    EXPECT_EQ(flat->allObjects()->count(), 4u);
  }
  {  // a folder URL ends in "/", a file URL does not
    auto walk = fm()->enumeratorAtURL(root.get(), nullptr, 0, nullptr);
    auto first = walk->nextObject();
    EXPECT_TRUE(first->absoluteString()->utf8().ends_with("/.h/"));
    EXPECT_TRUE(walk->nextObject()->absoluteString()->utf8().ends_with("/.h/inner"));
  }
  {  // a missing root reports to the handler and yields nothing
    int reports = 0;
    long code = 0;
    auto walk = fm()->enumeratorAtURL(URL::fileURLWithPath(dir / "missing", true).get(), nullptr, 0,
                                      [&](const URL*, const Error* error) {
                                        ++reports;
                                        code = error->code();
                                        return true;
                                      });
    EXPECT_FALSE(walk->nextObject());
    EXPECT_EQ(reports, 1);
    EXPECT_EQ(code, kFileReadNoSuchFileError);
  }
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
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), kFileReadNoSuchFileError);
}

TEST(FileManagerResourceValues, IsDirectoryAndBackupMark) {
  TempDir dir;
  writeFile(dir / "file", "x");
  auto file = URL::fileURLWithPath(dir / "file", false);
  auto folder = URL::fileURLWithPath(dir.path(), true);
  {  // is-directory
    Id value;
    EXPECT_TRUE(getResourceValue(folder.get(), &value, kURLIsDirectoryKey(), nullptr));
    EXPECT_TRUE(nk::isEqual(value.get(), Number::yes()));
    EXPECT_TRUE(getResourceValue(file.get(), &value, kURLIsDirectoryKey(), nullptr));
    EXPECT_TRUE(nk::isEqual(value.get(), Number::no()));
  }
  {  // a missing item: false and 260
    Id value;
    Ref<Error> error;
    auto missing = URL::fileURLWithPath(dir / "missing", false);
    EXPECT_FALSE(getResourceValue(missing.get(), &value, kURLIsDirectoryKey(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), kFileReadNoSuchFileError);
    EXPECT_FALSE(
        setResourceValue(missing.get(), Number::no(), kURLIsExcludedFromBackupKey(), nullptr));
  }
  if (::setxattr((dir / "file").c_str(), "user.nk.probe", "1", 1, 0) != 0) {
    GTEST_SKIP() << "this file system refuses user extended attributes (errno " << errno
                 << "); the backup mark cannot be tested here";
  }
  {  // round trip: YES writes "false", NO removes the attribute
    Id value;
    EXPECT_TRUE(getResourceValue(file.get(), &value, kURLIsExcludedFromBackupKey(), nullptr));
    EXPECT_TRUE(nk::isEqual(value.get(), Number::no()));
    Ref<Error> error;
    ASSERT_TRUE(setResourceValue(file.get(), Number::yes(), kURLIsExcludedFromBackupKey(), &error));
    char buffer[16] = {};
    ssize_t size = ::getxattr((dir / "file").c_str(), kBackupAttributeName, buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer, size > 0 ? size : 0), "false");
    EXPECT_TRUE(getResourceValue(file.get(), &value, kURLIsExcludedFromBackupKey(), nullptr));
    EXPECT_TRUE(nk::isEqual(value.get(), Number::yes()));
    ASSERT_TRUE(setResourceValue(file.get(), Number::no(), kURLIsExcludedFromBackupKey(), nullptr));
    EXPECT_LT(::getxattr((dir / "file").c_str(), kBackupAttributeName, buffer, sizeof buffer), 0);
    EXPECT_TRUE(getResourceValue(file.get(), &value, kURLIsExcludedFromBackupKey(), nullptr));
    EXPECT_TRUE(nk::isEqual(value.get(), Number::no()));
  }
  {  // a "true" mark left by another tool reads as not excluded
    ::setxattr((dir / "file").c_str(), kBackupAttributeName, "true", 4, 0);
    Id value;
    EXPECT_TRUE(getResourceValue(file.get(), &value, kURLIsExcludedFromBackupKey(), nullptr));
    EXPECT_TRUE(nk::isEqual(value.get(), Number::no()));
  }
  {  // other keys cannot be written
    Ref<Error> error;
    EXPECT_FALSE(setResourceValue(file.get(), Number::yes(), kURLIsDirectoryKey(), &error));
    EXPECT_TRUE(error);
  }
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
    EXPECT_EQ(underlyingErrno(error.get()), c.posix);
  }
  EXPECT_FALSE(fileError(ENOENT, nullptr, true)->userInfo()->objectForKey(kFilePathErrorKey()));
}

}  // namespace
}  // namespace nk
