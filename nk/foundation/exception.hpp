// Exception objects and how objects are thrown as C++ exceptions.
//
// `nk::raise(obj)` throws a ThrownObject holding any object; ThrownObject is the
// kind of C++ exception the library catches where the platform caught thrown
// objects. Every other C++ exception passes through unchanged.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

class Dictionary;

// Exception names the platform raises with; texts of the system's own.
inline constexpr std::string_view kInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr std::string_view kRangeException = "NSRangeException";
inline constexpr std::string_view kGenericException = "NSGenericException";
inline constexpr std::string_view kInternalInconsistencyException =
    "NSInternalInconsistencyException";

class Exception : public Object {
  NK_DECLARE_CLASS(Exception, Object)

 public:
  Exception(Ref<String> name, Ref<String> reason, const Ref<Dictionary>& userInfo);
  ~Exception() override;

  static Ref<Exception> make(std::string_view name, std::string_view reason);
  static Ref<Exception> make(std::string_view name, std::string_view reason,
                             const Ref<Dictionary>& userInfo);
  // Makes an exception and throws it as a ThrownObject.
  [[noreturn]] static void raise(std::string_view name, std::string_view reason);
  [[noreturn]] static void raise(std::string_view name, std::string_view reason,
                                 const Ref<Dictionary>& userInfo);
  [[noreturn]] static void raise(const Ref<String>& name, const Ref<String>& reason,
                                 const Ref<Dictionary>& userInfo);

  const Ref<String>& name() const noexcept { return name_; }
  // May be nil.
  const Ref<String>& reason() const noexcept { return reason_; }
  // May be nil.
  const Ref<Dictionary>& userInfo() const noexcept { return userInfo_; }

  // The reason, as the platform describes an exception.
  Ref<String> description() const override;

 private:
  Ref<String> name_;
  Ref<String> reason_;
  Ref<Dictionary> userInfo_;
};

// The C++ exception that carries a thrown object.
class ThrownObject : public std::exception {
 public:
  explicit ThrownObject(Id object);
  const Id& object() const noexcept { return object_; }
  // The object's description in UTF-8.
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  Id object_;
  std::string what_;
};

// Throws `object` (which may be nil) as a ThrownObject.
[[noreturn]] void raise(Id object);

}  // namespace nk
