// Class: the runtime record of an object type.
//
// Each class has a name, a superclass, a metaclass (the table of class-level
// methods) and a method table searched through the superclasses, with add,
// replace and exchange. Classes are found by name in a process-wide registry.
// Class records live until the process ends.
#pragma once

#include <atomic>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "nk/foundation/object.hpp"

namespace nk {

// An implementation: any function pointer, cast to its real type by the caller.
using Imp = void (*)();

// A method of a class: a name, an implementation and a type encoding such as
// "v16@0:8". Methods live as long as their class; their implementation may be
// exchanged at any time by another thread.
class Method {
 public:
  Method(std::string name, Imp imp, std::string types)
      : name_(std::move(name)), imp_(imp), types_(std::move(types)) {}
  const std::string& name() const noexcept { return name_; }
  Imp implementation() const noexcept { return imp_.load(std::memory_order_acquire); }
  // Sets the implementation, returning the previous one.
  Imp setImplementation(Imp imp) noexcept { return imp_.exchange(imp, std::memory_order_acq_rel); }
  const std::string& typeEncoding() const noexcept { return types_; }

  // Swaps the implementations of two methods in one step.
  static void exchangeImplementations(Method& a, Method& b) noexcept;

 private:
  std::string name_;
  std::atomic<Imp> imp_;
  std::string types_;
};

class Class {
 public:
  enum Flags : unsigned {
    kNone = 0,
    kCopyable = 1u << 0,  // conforms to the copying protocol (inherited)
  };

  // Registers a new class. Raises "NSInvalidArgumentException" when the name is
  // taken. Used by NK_DEFINE_CLASS; hosts may call it directly.
  static Class& registerClass(std::string_view name, const Class* superclass,
                              unsigned flags = kNone);
  // The class of that name, or nullptr.
  static Class* named(std::string_view name) noexcept;

  const std::string& name() const noexcept { return name_; }
  const Class* superclass() const noexcept { return super_; }
  // The table of class-level methods; its superclass is the superclass's metaclass.
  Class& metaclass() noexcept { return *meta_; }
  const Class& metaclass() const noexcept { return *meta_; }
  bool isMetaclass() const noexcept { return meta_ == nullptr; }

  // True when this class is `other` or inherits from it.
  bool isSubclassOf(const Class& other) const noexcept;
  bool isCopyable() const noexcept;

  // The method of that name, defined here or inherited; nullptr when none.
  Method* lookupMethod(std::string_view name) const noexcept;
  // The method this class itself defines under that name; nullptr when none.
  Method* ownMethod(std::string_view name) const noexcept;
  // Adds a method; false when this class already defines the name.
  bool addMethod(std::string_view name, Imp imp, std::string_view types);
  // Sets this class's own method of that name, adding it when absent. Returns
  // the previous own implementation, or nullptr.
  Imp replaceMethod(std::string_view name, Imp imp, std::string_view types);

  Class(const Class&) = delete;
  Class& operator=(const Class&) = delete;

 private:
  Class(std::string name, const Class* super, unsigned flags, Class* meta);

  std::string name_;
  const Class* super_;
  unsigned flags_;
  Class* meta_;
  mutable std::shared_mutex lock_;
  std::vector<std::unique_ptr<Method>> methods_;
};

// Calls the instance method `name` of `self` with the given arguments. The caller
// states the method's C++ type; nothing checks it against the type encoding.
// Raises "NSInvalidArgumentException" when the object does not respond.
template <class R, class... Args>
R invokeMethod(Object* self, const char* name, Args... args);

// Calls the class method `name` of `cls`.
template <class R, class... Args>
R invokeClassMethod(const Class& cls, const char* name, Args... args);

namespace class_internal {
[[noreturn]] void raiseUnrecognized(const Class& cls, const char* name, bool classMethod);
}  // namespace class_internal

template <class R, class... Args>
R invokeMethod(Object* self, const char* name, Args... args) {
  Method* m = self->objectClass().lookupMethod(name);
  if (!m) class_internal::raiseUnrecognized(self->objectClass(), name, false);
  return reinterpret_cast<R (*)(Object*, Args...)>(m->implementation())(self, args...);
}

template <class R, class... Args>
R invokeClassMethod(const Class& cls, const char* name, Args... args) {
  Method* m = cls.metaclass().lookupMethod(name);
  if (!m) class_internal::raiseUnrecognized(cls, name, true);
  return reinterpret_cast<R (*)(const Class&, Args...)>(m->implementation())(cls, args...);
}

}  // namespace nk

// Defines the class record declared by NK_DECLARE_CLASS and registers it by name
// when the program starts. `...` takes optional nk::Class flags.
#define NK_DEFINE_CLASS(Type, Name, ...)                                                          \
  const ::nk::Class& Type::staticClass() noexcept {                                               \
    static const ::nk::Class& cls =                                                               \
        ::nk::Class::registerClass(Name, &Type::Super::staticClass() __VA_OPT__(, ) __VA_ARGS__); \
    return cls;                                                                                   \
  }                                                                                               \
  [[maybe_unused]] static const ::nk::Class& nk_class_registration_##Type = Type::staticClass()
