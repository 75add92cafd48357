// KeyedArchiver: flattens an object graph into the "$objects" table of a keyed
// archive, each object once, containers and host objects as dictionaries that
// name their class, then writes the whole as a binary property list.
#include "nk/foundation/keyed_archiver.hpp"

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/keyed_archive_internal.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list.hpp"
#include "nk/foundation/secure_coding.hpp"
#include "nk/foundation/set.hpp"
#include "nk/foundation/url.hpp"

namespace nk {

using namespace keyed_archive_internal;

struct KeyedArchiver::State {
  KeyedArchiver* self = nullptr;
  bool requiringSecureCoding = false;
  // "$objects"; a container's slot is reserved before its contents are written
  // (so that a cycle through mutable containers refers back to it) and filled after.
  std::vector<Id> objects;
  std::unordered_map<const Object*, uint64_t> uids;
  // Everything given a UID stays alive until the end, so that an address is never
  // reused for another object while `uids` remembers it.
  std::vector<Id> retained;
  std::unordered_map<const Class*, uint64_t> classUids;
  // The dictionary the coder's encode calls write into.
  MutableDictionary* current = nullptr;
  size_t depth = 0;
  Ref<Error> error;

  void fail(const std::string& reason) {
    if (!error) error = makeError(kCoderInvalidValueError, reason);
  }
  uint64_t encode(const Object* object);
  uint64_t classUid(const Class& cls);
  Ref<PlistUID> reference(const Object* object) { return PlistUID::make(encode(object)); }
  template <class Collection>
  Ref<Array> references(const Collection& items);
  bool fillBody(const Object& object, MutableDictionary& body);
  void put(Id value, std::string_view key);
};

namespace {

bool isInlineScalar(const Object& object) {
  if (object.isKindOfClass(String::staticClass())) {
    return !object.isKindOfClass(MutableString::staticClass());
  }
  if (object.isKindOfClass(Data::staticClass())) {
    return !object.isKindOfClass(MutableData::staticClass());
  }
  return object.isKindOfClass(Number::staticClass());
}

}  // namespace

uint64_t KeyedArchiver::State::encode(const Object* object) {
  if (!object || error) return 0;
  if (auto found = uids.find(object); found != uids.end()) {
    // Met again while its own body is being filled: the unarchiver refuses such
    // an archive, so it is not written.
    if (!objects[found->second]) {
      fail("Objects that contain themselves cannot be archived.");
      return 0;
    }
    return found->second;
  }
  uint64_t uid = objects.size();
  uids.emplace(object, uid);
  retained.emplace_back(const_cast<Object*>(object));
  if (isInlineScalar(*object)) {
    objects.emplace_back(const_cast<Object*>(object));
    return uid;
  }
  if (depth >= kMaxDepth) {
    fail("Objects are nested too deeply to archive.");
    return 0;
  }
  objects.emplace_back();
  auto body = MutableDictionary::make();
  ++depth;
  bool filled = fillBody(*object, *body);
  --depth;
  if (!filled || error) return 0;
  body->setObjectForKey(PlistUID::make(classUid(object->objectClass())), NK_STR("$class"));
  objects[uid] = std::move(body);
  return uid;
}

template <class Collection>
Ref<Array> KeyedArchiver::State::references(const Collection& items) {
  std::vector<Id> refs;
  refs.reserve(items.count());
  for (const Id& item : items) refs.emplace_back(reference(item.get()));
  return Array::make(std::move(refs));
}

bool KeyedArchiver::State::fillBody(const Object& object, MutableDictionary& body) {
  if (auto* coding = dynamic_cast<const SecureCoding*>(&object)) {
    if (requiringSecureCoding && !classSupportsSecureCoding(object.objectClass())) {
      fail("Class '" + object.objectClass().name() + "' does not support secure coding.");
      return false;
    }
    MutableDictionary* outer = std::exchange(current, &body);
    coding->encodeWithCoder(*self);
    current = outer;
    return true;
  }
  if (auto* dict = cast<Dictionary>(&object)) {
    std::vector<Id> keys, values;
    keys.reserve(dict->count());
    values.reserve(dict->count());
    for (const auto& [key, value] : dict->entries()) keys.emplace_back(reference(key.get()));
    for (const auto& [key, value] : dict->entries()) values.emplace_back(reference(value.get()));
    body.setObjectForKey(Array::make(std::move(keys)), NK_STR("NS.keys"));
    body.setObjectForKey(Array::make(std::move(values)), NK_STR("NS.objects"));
  } else if (auto* array = cast<Array>(&object)) {
    body.setObjectForKey(references(*array), NK_STR("NS.objects"));
  } else if (auto* set = cast<Set>(&object)) {
    body.setObjectForKey(references(*set), NK_STR("NS.objects"));
  } else if (object.isKindOfClass(MutableString::staticClass())) {
    body.setObjectForKey(object.copy(), NK_STR("NS.string"));
  } else if (object.isKindOfClass(MutableData::staticClass())) {
    body.setObjectForKey(object.copy(), NK_STR("NS.data"));
  } else if (auto* date = cast<Date>(&object)) {
    body.setObjectForKey(Number::withDouble(date->timeIntervalSinceReferenceDate()),
                         NK_STR("NS.time"));
  } else if (auto* url = cast<URL>(&object)) {
    body.setObjectForKey(reference(url->baseURL().get()), NK_STR("NS.base"));
    body.setObjectForKey(reference(url->relativeString().get()), NK_STR("NS.relative"));
  } else if (!cast<Null>(&object)) {
    fail("Class '" + object.objectClass().name() + "' cannot be archived.");
    return false;
  }
  return true;
}

uint64_t KeyedArchiver::State::classUid(const Class& cls) {
  if (auto found = classUids.find(&cls); found != classUids.end()) return found->second;
  std::vector<Id> chain;
  for (const Class* c = &cls; c; c = c->superclass()) {
    const char* platformName = platformNameOfClass(*c);
    chain.emplace_back(String::fromUTF8(platformName ? platformName : c->name()));
  }
  Id name = chain.front();
  uint64_t uid = objects.size();
  objects.emplace_back(Dictionary::make({{NK_STR("$classname"), std::move(name)},
                                         {NK_STR("$classes"), Array::make(std::move(chain))}}));
  classUids.emplace(&cls, uid);
  return uid;
}

void KeyedArchiver::State::put(Id value, std::string_view key) {
  Ref<String> stored = storedKey(key);
  if (!stored) return fail("A coder key is not UTF-8 text.");
  current->setObjectForKey(std::move(value), stored);
}

KeyedArchiver::KeyedArchiver(bool requiringSecureCoding) : state_(std::make_unique<State>()) {
  state_->self = this;
  state_->requiringSecureCoding = requiringSecureCoding;
}

KeyedArchiver::~KeyedArchiver() = default;

Ref<Data> KeyedArchiver::archivedDataWithRootObject(const Object* root, bool requiringSecureCoding,
                                                    Ref<Error>* error) {
  KeyedArchiver archiver(requiringSecureCoding);
  State& state = *archiver.state_;
  state.objects.emplace_back(kNullMarker());
  uint64_t rootUid = state.encode(root);
  if (state.error) {
    if (error) *error = state.error;
    return nullptr;
  }
  auto top = Dictionary::make({{NK_STR("root"), PlistUID::make(rootUid)}});
  auto archive = Dictionary::make({{NK_STR("$version"), Number::withLongLong(kArchiveVersion)},
                                   {NK_STR("$archiver"), kArchiverName()},
                                   {NK_STR("$top"), std::move(top)},
                                   {NK_STR("$objects"), Array::make(std::move(state.objects))}});
  auto bytes = writePropertyList(archive.get(), PropertyListFormat::kBinary, error);
  if (!bytes) return nullptr;
  return Data::fromVector(std::move(*bytes));
}

void KeyedArchiver::encodeObject(const Object* object, std::string_view key) {
  state_->put(state_->reference(object), key);
}

void KeyedArchiver::encodeBool(bool value, std::string_view key) {
  state_->put(Number::withBool(value), key);
}

void KeyedArchiver::encodeInt64(int64_t value, std::string_view key) {
  state_->put(Number::withLongLong(value), key);
}

void KeyedArchiver::encodeDouble(double value, std::string_view key) {
  state_->put(Number::withDouble(value), key);
}

void KeyedArchiver::encodeBytes(std::span<const uint8_t> bytes, std::string_view key) {
  state_->put(Data::fromBytes(bytes), key);
}

}  // namespace nk
