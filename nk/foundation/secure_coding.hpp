// SecureCoding: the protocol through which host classes write themselves into a
// keyed archive and are made again from one, and the registration that lets the
// unarchiver find them by class name.
#pragma once

#include "nk/foundation/class.hpp"
#include "nk/foundation/object.hpp"

namespace nk {

class KeyedArchiver;
class KeyedUnarchiver;

// A class whose instances archive themselves inherits SecureCoding beside its
// Object base:
//
//   class Token : public nk::Object, public nk::SecureCoding {
//     NK_DECLARE_CLASS(Token, nk::Object)
//    public:
//     void encodeWithCoder(nk::KeyedArchiver& coder) const override;
//     static nk::Ref<Token> initWithCoder(nk::KeyedUnarchiver& coder);  // nil: failed
//   };
//
// and in its source file, after NK_DEFINE_CLASS(Token, "VNKAOAuthToken"):
//
//   NK_DEFINE_SECURE_CODING(Token);
class SecureCoding {
 public:
  virtual ~SecureCoding() = default;
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

// Names of the class methods NK_DEFINE_SECURE_CODING registers on the metaclass:
//   bool supportsSecureCoding(const Class&)
//   Id initWithCoder(const Class&, KeyedUnarchiver*)
inline constexpr const char* kSupportsSecureCodingMethod = "supportsSecureCoding";
inline constexpr const char* kInitWithCoderMethod = "initWithCoder:";

// True when `cls` (or a superclass) answers supportsSecureCoding with true.
bool classSupportsSecureCoding(const Class& cls);

namespace secure_coding_internal {
// Adds the two class methods to `cls`'s metaclass; used by NK_DEFINE_SECURE_CODING.
bool registerSecureCoding(const Class& cls, Id (*init)(const Class&, KeyedUnarchiver*));
}  // namespace secure_coding_internal

}  // namespace nk

// Registers Type's supportsSecureCoding and initWithCoder: class methods when the
// program starts. Type::initWithCoder(KeyedUnarchiver&) returns Ref<Type> (nil on
// failure).
#define NK_DEFINE_SECURE_CODING(Type)                                                 \
  [[maybe_unused]] static const bool nk_secure_coding_registration_##Type =           \
      ::nk::secure_coding_internal::registerSecureCoding(                             \
          Type::staticClass(), [](const ::nk::Class&, ::nk::KeyedUnarchiver* coder) { \
            return ::nk::Id(Type::initWithCoder(*coder));                             \
          })
