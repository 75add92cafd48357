// Error: the value operations return to say why they failed.
//
// An error has a domain, a code and a user-information dictionary, and is
// immutable. It can also carry associated objects that live exactly as long as
// the error (the promise engine's unhandled-error tracker uses one).
#pragma once

#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// User-information keys of the system's own.
String* kLocalizedDescriptionKey() noexcept;  // "NSLocalizedDescription"
String* kUnderlyingErrorKey() noexcept;       // "NSUnderlyingError"
// Where the platform explains a failure for developers (parsers name the offset).
String* kDebugDescriptionKey() noexcept;  // "NSDebugDescription"
// The platform's error domains.
String* kCocoaErrorDomain() noexcept;  // "NSCocoaErrorDomain"
String* kPOSIXErrorDomain() noexcept;  // "NSPOSIXErrorDomain"

class Error final : public Object {
  NK_DECLARE_CLASS(Error, Object)

 public:
  // Makes an error. The user information is copied (a later change of a
  // MutableDictionary passed here does not show); nil stands for none. Raises
  // "NSInvalidArgumentException" when `domain` is nil.
  //   auto e = Error::make(NK_STR("MyDomain"), 4, nullptr);
  static Ref<Error> make(const Ref<String>& domain, long code,
                         const Ref<Dictionary>& userInfo = nullptr);
  static Ref<Error> make(std::string_view domainUTF8, long code,
                         const Ref<Dictionary>& userInfo = nullptr);

  // As make(); for nk::make<Error>(...).
  Error(Ref<String> domain, long code, const Ref<Dictionary>& userInfo);

  const Ref<String>& domain() const noexcept { return domain_; }
  long code() const noexcept { return code_; }
  // Nil when the error was made without user information.
  const Ref<Dictionary>& userInfo() const noexcept { return userInfo_; }

  // The user information's "NSLocalizedDescription" when it is a string, else
  // "The operation couldn’t be completed. (DOMAIN error CODE.)".
  Ref<String> localizedDescription() const;
  // The user information's "NSUnderlyingError" when it is an Error, else nil.
  Ref<Error> underlyingError() const noexcept;

  // Equal domain, code and user information (nil and empty user information
  // are equal).
  bool isEqual(const Object* other) const noexcept override;
  size_t hash() const noexcept override;
  // `Error Domain=DOMAIN Code=CODE "LOCALIZED DESCRIPTION"`, followed by
  // ` UserInfo=` and the user information's description when there is any.
  Ref<String> description() const override;
  // Errors are immutable: the copy is the error itself.
  Id copy() const override;

  // The object stored under `key` (compared by address), or nil. Thread-safe.
  Id associatedObject(const void* key) const;
  // Stores `value` under `key`, replacing any earlier one; nil removes it. The
  // value is released when replaced or when the error dies; in the latter case
  // first, while the error's domain, code and user information are still
  // readable (but the value must not retain the dying error). Thread-safe.
  void setAssociatedObject(const void* key, Id value);

 private:
  ~Error() override;

  Ref<String> domain_;
  long code_;
  Ref<Dictionary> userInfo_;
  mutable std::mutex associatedLock_;
  std::vector<std::pair<const void*, Id>> associated_;
};

}  // namespace nk
