// Error: construction, the platform's texts and associated objects.
#include "nk/foundation/error.hpp"

#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/format.hpp"

namespace nk {

NK_DEFINE_CLASS(Error, "Error", Class::kCopyable);

String* kLocalizedDescriptionKey() noexcept { return NK_STR("NSLocalizedDescription"); }
String* kUnderlyingErrorKey() noexcept { return NK_STR("NSUnderlyingError"); }
String* kDebugDescriptionKey() noexcept { return NK_STR("NSDebugDescription"); }
String* kCocoaErrorDomain() noexcept { return NK_STR("NSCocoaErrorDomain"); }
String* kPOSIXErrorDomain() noexcept { return NK_STR("NSPOSIXErrorDomain"); }

Ref<Error> Error::make(const Ref<String>& domain, long code, const Ref<Dictionary>& userInfo) {
  return nk::make<Error>(domain, code, userInfo);
}

Ref<Error> Error::make(std::string_view domainUTF8, long code, const Ref<Dictionary>& userInfo) {
  return nk::make<Error>(String::fromUTF8(domainUTF8), code, userInfo);
}

Error::Error(Ref<String> domain, long code, const Ref<Dictionary>& userInfo)
    : domain_(std::move(domain)), code_(code) {
  if (!domain_) {
    Exception::raise(kInvalidArgumentException,
                     "*** -[Error initWithDomain:code:userInfo:]: nil domain");
  }
  // A copy of the domain too: a MutableString changed later must not show.
  domain_ = cast<String>(domain_->copy());
  if (userInfo) userInfo_ = cast<Dictionary>(userInfo->copy());
}

Error::~Error() {
  // Associated objects go first, while the rest of the error is intact.
  std::vector<std::pair<const void*, Id>> doomed;
  {
    std::lock_guard<std::mutex> lock(associatedLock_);
    doomed.swap(associated_);
  }
  doomed.clear();
}

Ref<String> Error::localizedDescription() const {
  if (userInfo_) {
    if (auto text = cast<String>(userInfo_->objectForKey(kLocalizedDescriptionKey()))) return text;
  }
  // U+2019 (right single quotation mark), as the platform writes "couldn’t".
  return format("The operation couldn\xE2\x80\x99t be completed. (%@ error %ld.)", domain_, code_);
}

Ref<Error> Error::underlyingError() const noexcept {
  return userInfo_ ? cast<Error>(userInfo_->objectForKey(kUnderlyingErrorKey())) : nullptr;
}

bool Error::isEqual(const Object* other) const noexcept {
  if (other == this) return true;
  const auto* e = cast<Error>(other);
  if (!e || e->code_ != code_ || !domain_->isEqual(e->domain_.get())) return false;
  const bool emptyHere = !userInfo_ || userInfo_->isEmpty();
  const bool emptyThere = !e->userInfo_ || e->userInfo_->isEmpty();
  if (emptyHere || emptyThere) return emptyHere == emptyThere;
  return userInfo_->isEqual(e->userInfo_.get());
}

size_t Error::hash() const noexcept { return domain_->hash() ^ static_cast<size_t>(code_) * 31; }

Ref<String> Error::description() const {
  if (!userInfo_ || userInfo_->isEmpty()) {
    return format("Error Domain=%@ Code=%ld \"%@\"", domain_, code_, localizedDescription());
  }
  return format("Error Domain=%@ Code=%ld \"%@\" UserInfo=%@", domain_, code_,
                localizedDescription(), userInfo_);
}

Id Error::copy() const { return Id(const_cast<Error*>(this)); }

Id Error::associatedObject(const void* key) const {
  std::lock_guard<std::mutex> lock(associatedLock_);
  for (const auto& [k, value] : associated_) {
    if (k == key) return value;
  }
  return nullptr;
}

void Error::setAssociatedObject(const void* key, Id value) {
  Id old;  // released outside the lock: its destructor may use this error
  std::lock_guard<std::mutex> lock(associatedLock_);
  for (auto it = associated_.begin(); it != associated_.end(); ++it) {
    if (it->first != key) continue;
    if (value) {
      old = std::exchange(it->second, std::move(value));
    } else {
      old = std::move(it->second);
      associated_.erase(it);
    }
    return;
  }
  if (value) associated_.emplace_back(key, std::move(value));
}

}  // namespace nk
