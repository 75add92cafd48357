// Keyed unarchiving: any bytes, with every built-in and a host class allowed.
// Whatever decodes must archive again and decode again, and settle on stable bytes.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/keyed_archiver.hpp"
#include "nk/foundation/keyed_unarchiver.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/secure_coding.hpp"
#include "nk/foundation/set.hpp"
#include "nk/foundation/url.hpp"

namespace {

std::span<const nk::Class* const> allowed();

// A host object using every decode call, so that the coder's readers meet
// arbitrary values too.
class FuzzNode : public nk::Object, public nk::SecureCoding {
  NK_DECLARE_CLASS(FuzzNode, nk::Object)

 public:
  nk::Id child;
  int64_t count = 0;
  double ratio = 0;
  bool flag = false;
  std::vector<uint8_t> bytes;

  void encodeWithCoder(nk::KeyedArchiver& coder) const override {
    coder.encodeObject(child.get(), "child");
    coder.encodeInt64(count, "count");
    coder.encodeDouble(ratio, "ratio");
    coder.encodeBool(flag, "flag");
    coder.encodeBytes(bytes, "bytes");
  }
  static nk::Ref<FuzzNode> initWithCoder(nk::KeyedUnarchiver& coder) {
    auto node = nk::make<FuzzNode>();
    node->child = coder.decodeObjectOfClasses(allowed(), "child");
    node->count = coder.decodeInt64("count");
    node->ratio = coder.decodeDouble("ratio");
    node->flag = coder.decodeBool("flag");
    node->bytes = coder.decodeBytes("bytes");
    return node;
  }
};
NK_DEFINE_CLASS(FuzzNode, "FuzzNode");
NK_DEFINE_SECURE_CODING(FuzzNode);

std::span<const nk::Class* const> allowed() {
  static const nk::Class* const classes[] = {
      &nk::Dictionary::staticClass(), &nk::String::staticClass(), &nk::Number::staticClass(),
      &nk::Array::staticClass(),      &nk::Set::staticClass(),    &nk::URL::staticClass(),
      &nk::Date::staticClass(),       &nk::Data::staticClass(),   &nk::Null::staticClass(),
      &FuzzNode::staticClass()};
  return classes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto input = nk::Data::fromBytes(data, size);
  nk::Ref<nk::Error> error;
  nk::Id root = nk::KeyedUnarchiver::unarchivedObjectOfClasses(allowed(), input.get(), &error);
  if (!root) {
    if (error && error->code() != nk::kCoderReadCorruptError) std::abort();
    return 0;
  }
  // The first archive may hold as distinct objects equal scalars that the
  // property-list writer then stores once and its reader shares; from the second
  // round on, the bytes are stable.
  nk::Ref<nk::Data> archives[3];
  for (auto& archive : archives) {
    archive = nk::KeyedArchiver::archivedDataWithRootObject(root.get(), true);
    if (!archive) std::abort();
    root = nk::KeyedUnarchiver::unarchivedObjectOfClasses(allowed(), archive.get());
    if (!root) std::abort();
  }
  if (!archives[1]->isEqual(archives[2].get())) std::abort();
  return 0;
}
