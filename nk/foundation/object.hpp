// Object: the base of every value of the object model.
//
// An object carries an intrusive atomic reference count and knows its runtime
// `Class`. Identity is the address: markers recognised "by identity" compare
// pointers. Equality, hashing, description and copying are virtual so that each
// value type follows the platform's rules for them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "nk/foundation/ref.hpp"

namespace nk {

class Class;
class Object;
class String;

using Id = Ref<Object>;

// Declares the runtime class of an object type. Put it first in the class body;
// pair it with NK_DEFINE_CLASS in one source file.
//
//   class Token : public nk::Object {
//     NK_DECLARE_CLASS(Token, nk::Object)
//    public:
//     ...
//   };
#define NK_DECLARE_CLASS(Type, Base)                                                 \
 public:                                                                             \
  using Super = Base;                                                                \
  static const ::nk::Class& staticClass() noexcept;                                  \
  const ::nk::Class& objectClass() const noexcept override { return staticClass(); } \
                                                                                     \
 private:

class Object {
 public:
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  // The class record of Object itself.
  static const Class& staticClass() noexcept;
  // The class of this object (its most derived declared class).
  virtual const Class& objectClass() const noexcept;

  void retain() const noexcept { retain(1); }
  void release() const noexcept { release(1); }
  // `n` retains or releases in one step, for callers that know how many they need.
  void retain(uint32_t n) const noexcept {
    if (refs_.load(std::memory_order_relaxed) & kImmortal) return;
    refs_.fetch_add(n, std::memory_order_relaxed);
  }
  void release(uint32_t n) const noexcept {
    if (refs_.load(std::memory_order_relaxed) & kImmortal) return;
    if (refs_.fetch_sub(n, std::memory_order_acq_rel) == n) delete this;
  }
  // For tests and diagnostics only: another thread may change it at once.
  uint32_t retainCount() const noexcept {
    return refs_.load(std::memory_order_relaxed) & ~kImmortal;
  }
  bool isImmortal() const noexcept { return refs_.load(std::memory_order_relaxed) & kImmortal; }

  // Value equality as the platform defines it; identity by default.
  virtual bool isEqual(const Object* other) const noexcept;
  // Agrees with isEqual: equal objects have equal hashes.
  virtual size_t hash() const noexcept;
  // The text log lines and error messages quote: "<ClassName: 0x…>" by default.
  virtual Ref<String> description() const;

  // An immutable copy: the object itself when it is already immutable. Raises
  // "NSInvalidArgumentException" for classes that are not copyable.
  virtual Id copy() const;
  // A mutable copy. Raises "NSInvalidArgumentException" where there is none.
  virtual Id mutableCopy() const;

  // Kind test: the object's class is `cls` or a subclass of it.
  bool isKindOfClass(const Class& cls) const noexcept;
  // Member test: the object's class is exactly `cls`.
  bool isMemberOfClass(const Class& cls) const noexcept;
  // True when the class conforms to the copying protocol.
  bool conformsToCopying() const noexcept;
  // True when an instance method of that name is found through the superclasses.
  bool respondsToMethod(const char* name) const noexcept;

 protected:
  Object() noexcept = default;
  virtual ~Object();

  // Makes the object live for ever: retain and release no longer count. For
  // process-wide constants only.
  void makeImmortal() noexcept { refs_.fetch_or(kImmortal, std::memory_order_relaxed); }

  // Spare bits beside the count, free for subclasses (flags, small lengths).
  uint32_t spare_ = 0;

 private:
  static constexpr uint32_t kImmortal = 0x80000000u;
  mutable std::atomic<uint32_t> refs_{1};
};

// Kind-checked downcast: `p` as a T when it is of kind T, else nil.
template <class T>
Ref<T> cast(const Id& p) noexcept {
  if (p && p->isKindOfClass(T::staticClass())) return Ref<T>(static_cast<T*>(p.get()));
  return nullptr;
}
template <class T>
T* cast(Object* p) noexcept {
  if (p && p->isKindOfClass(T::staticClass())) return static_cast<T*>(p);
  return nullptr;
}
template <class T>
const T* cast(const Object* p) noexcept {
  if (p && p->isKindOfClass(T::staticClass())) return static_cast<const T*>(p);
  return nullptr;
}

// Equality that treats two nils as equal and nil as unequal to anything else.
inline bool isEqual(const Object* a, const Object* b) noexcept {
  if (a == b) return true;
  return a && b && a->isEqual(b);
}
inline bool isEqual(const Id& a, const Id& b) noexcept { return isEqual(a.get(), b.get()); }

}  // namespace nk
