// Class records, method tables and the registry of classes by name.
#include "nk/foundation/class.hpp"

#include <mutex>
#include <unordered_map>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/format.hpp"

namespace nk {
namespace {

struct Registry {
  std::shared_mutex lock;
  std::unordered_map<std::string, Class*> byName;
};

Registry& registry() {
  static Registry* r = new Registry;  // lives until exit; classes outlive every object
  return *r;
}

// Serialises exchanges so that two concurrent swaps cannot interleave.
std::mutex& exchangeLock() {
  static std::mutex* m = new std::mutex;
  return *m;
}

}  // namespace

void Method::exchangeImplementations(Method& a, Method& b) noexcept {
  std::lock_guard<std::mutex> guard(exchangeLock());
  Imp ia = a.implementation();
  Imp ib = b.setImplementation(ia);
  a.setImplementation(ib);
}

Class::Class(std::string name, const Class* super, unsigned flags, Class* meta)
    : name_(std::move(name)), super_(super), flags_(flags), meta_(meta) {}

Class& Class::registerClass(std::string_view name, const Class* superclass, unsigned flags) {
  Registry& r = registry();
  std::unique_lock<std::shared_mutex> guard(r.lock);
  auto [it, inserted] = r.byName.try_emplace(std::string(name), nullptr);
  if (!inserted) {
    guard.unlock();
    Exception::raise(kInvalidArgumentException,
                     formatUTF8("A class named %s is already registered", name));
  }
  Class* meta =
      new Class(std::string(name), superclass ? superclass->meta_ : nullptr, kNone, nullptr);
  it->second = new Class(std::string(name), superclass, flags, meta);
  return *it->second;
}

Class* Class::named(std::string_view name) noexcept {
  Registry& r = registry();
  std::shared_lock<std::shared_mutex> guard(r.lock);
  auto it = r.byName.find(std::string(name));
  return it == r.byName.end() ? nullptr : it->second;
}

bool Class::isSubclassOf(const Class& other) const noexcept {
  for (const Class* c = this; c; c = c->super_) {
    if (c == &other) return true;
  }
  return false;
}

bool Class::isCopyable() const noexcept {
  for (const Class* c = this; c; c = c->super_) {
    if (c->flags_ & kCopyable) return true;
  }
  return false;
}

Method* Class::ownMethod(std::string_view name) const noexcept {
  std::shared_lock<std::shared_mutex> guard(lock_);
  for (const auto& m : methods_) {
    if (m->name() == name) return m.get();
  }
  return nullptr;
}

Method* Class::lookupMethod(std::string_view name) const noexcept {
  for (const Class* c = this; c; c = c->super_) {
    if (Method* m = c->ownMethod(name)) return m;
  }
  return nullptr;
}

bool Class::addMethod(std::string_view name, Imp imp, std::string_view types) {
  std::unique_lock<std::shared_mutex> guard(lock_);
  for (const auto& m : methods_) {
    if (m->name() == name) return false;
  }
  methods_.push_back(std::make_unique<Method>(std::string(name), imp, std::string(types)));
  return true;
}

Imp Class::replaceMethod(std::string_view name, Imp imp, std::string_view types) {
  std::unique_lock<std::shared_mutex> guard(lock_);
  for (const auto& m : methods_) {
    if (m->name() == name) return m->setImplementation(imp);
  }
  methods_.push_back(std::make_unique<Method>(std::string(name), imp, std::string(types)));
  return nullptr;
}

namespace class_internal {
void raiseUnrecognized(const Class& cls, const char* name, bool classMethod) {
  Exception::raise(
      kInvalidArgumentException,
      formatUTF8("%c[%s %s]: unrecognized selector sent to %s %p", classMethod ? '+' : '-',
                 cls.name(), name, classMethod ? "class" : "instance", &cls));
}
}  // namespace class_internal

}  // namespace nk
