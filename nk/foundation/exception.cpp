// Exception objects and throwing objects as C++ exceptions.
#include "nk/foundation/exception.hpp"

#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"

namespace nk {

NK_DEFINE_CLASS(Exception, "Exception", Class::kCopyable);

Exception::Exception(Ref<String> name, Ref<String> reason, const Ref<Dictionary>& userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(userInfo) {}

Exception::~Exception() = default;

Ref<Exception> Exception::make(std::string_view name, std::string_view reason) {
  return make(name, reason, nullptr);
}

Ref<Exception> Exception::make(std::string_view name, std::string_view reason,
                               const Ref<Dictionary>& userInfo) {
  return nk::make<Exception>(String::fromUTF8(name), String::fromUTF8(reason), userInfo);
}

void Exception::raise(std::string_view name, std::string_view reason) {
  nk::raise(make(name, reason));
}

void Exception::raise(std::string_view name, std::string_view reason,
                      const Ref<Dictionary>& userInfo) {
  nk::raise(make(name, reason, userInfo));
}

void Exception::raise(const Ref<String>& name, const Ref<String>& reason,
                      const Ref<Dictionary>& userInfo) {
  nk::raise(nk::make<Exception>(name, reason, userInfo));
}

Ref<String> Exception::description() const { return reason_ ? reason_ : String::empty(); }

ThrownObject::ThrownObject(Id object) : object_(std::move(object)) {
  what_ = object_ ? object_->description()->utf8() : "nil";
}

void raise(Id object) { throw ThrownObject(std::move(object)); }

}  // namespace nk
