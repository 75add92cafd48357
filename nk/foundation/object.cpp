// Object: reference counting, identity defaults and class tests.
#include "nk/foundation/object.hpp"

#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/format.hpp"

namespace nk {

const Class& Object::staticClass() noexcept {
  static const Class& cls = Class::registerClass("Object", nullptr);
  return cls;
}
[[maybe_unused]] static const Class& nk_class_registration_Object = Object::staticClass();

const Class& Object::objectClass() const noexcept { return staticClass(); }

Object::~Object() = default;

bool Object::isEqual(const Object* other) const noexcept { return this == other; }

size_t Object::hash() const noexcept { return reinterpret_cast<uintptr_t>(this) >> 4; }

Ref<String> Object::description() const {
  return format("<%s: %p>", objectClass().name(), static_cast<const void*>(this));
}

Id Object::copy() const {
  Exception::raise(kInvalidArgumentException,
                   formatUTF8("-[%s copyWithZone:]: unrecognized selector sent to instance %p",
                              objectClass().name(), static_cast<const void*>(this)));
}

Id Object::mutableCopy() const {
  Exception::raise(
      kInvalidArgumentException,
      formatUTF8("-[%s mutableCopyWithZone:]: unrecognized selector sent to instance %p",
                 objectClass().name(), static_cast<const void*>(this)));
}

bool Object::isKindOfClass(const Class& cls) const noexcept {
  return objectClass().isSubclassOf(cls);
}

bool Object::isMemberOfClass(const Class& cls) const noexcept { return &objectClass() == &cls; }

bool Object::conformsToCopying() const noexcept { return objectClass().isCopyable(); }

bool Object::respondsToMethod(const char* name) const noexcept {
  return objectClass().lookupMethod(name) != nullptr;
}

}  // namespace nk
