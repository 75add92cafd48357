// Property-list reading: any bytes. Whatever is accepted must write back as a
// binary property list that reads again to an equal value and writes again to
// the same bytes; whatever can be written as XML must read back.
#include <cstdint>
#include <cstdlib>
#include <unordered_map>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/property_list.hpp"
#include "nk/foundation/set.hpp"

namespace {

// Elements counted once per path (shared objects expand), capped at `cap`:
// isEqual walks every path, so only small expansions are compared that way.
uint64_t expanded(const nk::Object* object, uint64_t cap,
                  std::unordered_map<const nk::Object*, uint64_t>& memo) {
  if (auto it = memo.find(object); it != memo.end()) return it->second;
  uint64_t total = 1;
  auto add = [&](const nk::Id& child) {
    if (total <= cap) total += expanded(child.get(), cap, memo);
  };
  if (const auto* array = nk::cast<nk::Array>(object)) {
    for (const nk::Id& element : array->objects()) add(element);
  } else if (const auto* dict = nk::cast<nk::Dictionary>(object)) {
    for (const auto& [key, value] : dict->entries()) {
      add(key);
      add(value);
    }
  } else if (const auto* set = nk::cast<nk::Set>(object)) {
    for (const nk::Id& member : *set) add(member);
  }
  memo.emplace(object, total);
  return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  nk::Ref<nk::Error> error;
  nk::Id root = nk::readPropertyList(std::span<const uint8_t>(data, size), &error);
  if (!root) {
    if (!error || error->description()->length() == 0) std::abort();
    return 0;
  }

  auto binary = nk::writePropertyList(root.get(), nk::PropertyListFormat::kBinary, &error);
  if (!binary) std::abort();
  nk::Id again = nk::readPropertyList(*binary, &error);
  if (!again) std::abort();
  auto binaryAgain = nk::writePropertyList(again.get(), nk::PropertyListFormat::kBinary);
  if (!binaryAgain || *binaryAgain != *binary) std::abort();

  std::unordered_map<const nk::Object*, uint64_t> memo;
  constexpr uint64_t kCompareLimit = 50000;
  if (expanded(root.get(), kCompareLimit, memo) > kCompareLimit) return 0;
  if (!nk::isEqual(root, again)) std::abort();

  if (nk::isValidPropertyList(root.get(), nk::PropertyListFormat::kXML)) {
    auto xml = nk::writePropertyList(root.get(), nk::PropertyListFormat::kXML);
    if (!xml || !nk::readPropertyList(*xml)) std::abort();
  }
  return 0;
}
