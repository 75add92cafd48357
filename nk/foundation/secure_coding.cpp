// The class methods behind SecureCoding, kept in the runtime's method tables so
// that hosts may replace them as they would any other method.
#include "nk/foundation/secure_coding.hpp"

namespace nk {
namespace {

bool answerYes(const Class&) { return true; }

}  // namespace

bool classSupportsSecureCoding(const Class& cls) {
  Method* m = cls.metaclass().lookupMethod(kSupportsSecureCodingMethod);
  return m && reinterpret_cast<bool (*)(const Class&)>(m->implementation())(cls);
}

namespace secure_coding_internal {

bool registerSecureCoding(const Class& cls, Id (*init)(const Class&, KeyedUnarchiver*)) {
  // The registry hands out the same record writable; method tables are guarded inside.
  Class* writable = Class::named(cls.name());
  if (writable != &cls) return false;
  Class& meta = writable->metaclass();
  meta.replaceMethod(kSupportsSecureCodingMethod, reinterpret_cast<Imp>(&answerYes), "B16@0:8");
  meta.replaceMethod(kInitWithCoderMethod, reinterpret_cast<Imp>(init), "@24@0:8@16");
  return true;
}

}  // namespace secure_coding_internal
}  // namespace nk
