// Bundle: a folder of an application's or library's resources, with its
// Info.plist, resource lookup and localized string tables. The main bundle is
// the folder named by NK_MAIN_BUNDLE, else the executable's folder; the
// library's own bundle is its installed resource folder, or NK_LIBRARY_BUNDLE.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

class Bundle final : public Object {
  NK_DECLARE_CLASS(Bundle, Object)

 public:
  // The main bundle, resolved on each call (NK_MAIN_BUNDLE may change; tests
  // point it at temporary folders). One Bundle object per folder, so repeated
  // calls give the same object.
  static Ref<Bundle> mainBundle();
  // The bundle of a folder; nil when `path` is not an existing folder.
  static Ref<Bundle> bundleWithPath(const String* path);
  // The library's own bundle: NK_LIBRARY_BUNDLE when set, else
  // `<datadir>/nkutils`. Returned even when the folder is missing, so lookups
  // in it simply find nothing.
  static Ref<Bundle> libraryBundle();
  // The bundle of a class: the folder a host registered for it with
  // registerBundlePathForClass, else the library's own bundle (every class the
  // library itself defines lives there).
  static Ref<Bundle> bundleForClass(const Class& cls);
  // Declares `path` as the bundle of a host's class; nil removes the
  // declaration.
  static void registerBundlePathForClass(const Class& cls, const String* path);

  // The folder, without a trailing "/".
  const Ref<String>& bundlePath() const noexcept { return path_; }
  // `<bundlePath>/Resources`.
  Ref<String> resourcePath() const;

  // The Info.plist at the folder's root (XML or binary), re-read when the file
  // changes; an empty dictionary when it is missing or not a dictionary.
  Ref<Dictionary> infoDictionary() const;
  Id objectForInfoDictionaryKey(const String* key) const;
  // CFBundleIdentifier when it is a non-empty string, else nil.
  Ref<String> bundleIdentifier() const;
  // CFBundleDevelopmentRegion when it is a string, else "en".
  Ref<String> developmentRegion() const;

  // The path of resource `name` with extension `type` (nil or empty: `name` as
  // is; a leading
  // "." in `type` is allowed). Looked for in Resources/, then in
  // Resources/<language>.lproj/ for the preferred languages. nil when missing
  // or when the file name, extension included, has a ".." component.
  Ref<String> pathForResourceOfType(const String* name, const String* type) const;

  // The translation of `key` from the string table `table` (nil or empty:
  // "Localizable") in Resources/<language>.lproj/<table>.strings, trying the
  // user's languages in order, then the development region, "en" and "Base".
  // Untranslated: `value` when it is not empty, else `key`. Tables are cached
  // by path and modification time.
  Ref<String> localizedStringForKey(const String* key, const String* value,
                                    const String* table) const;

  // The user's languages, most preferred first: LANGUAGE (a ":"-separated list) when it names
  // any, else the first set of LC_ALL, LC_MESSAGES and LANG. "fr_FR.UTF-8@euro" gives
  // "fr_FR", "fr-FR", "fr"; a modifier naming a script comes first with it: "sr_RS@latin"
  // gives "sr-Latn-RS", "sr-Latn", "sr_RS", "sr-RS", "sr". "C" and "POSIX" name no language; when
  // that locale is exactly "C" or "POSIX" (or none is set) LANGUAGE is ignored too, as gettext
  // does.
  static std::vector<std::string> preferredLanguages();

  // Use bundleWithPath or mainBundle.
  explicit Bundle(Ref<String> path);
  ~Bundle() override;

 private:
  struct InfoCache;
  Ref<String> path_;
  std::unique_ptr<InfoCache> info_;
};

}  // namespace nk
