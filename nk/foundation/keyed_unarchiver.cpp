// KeyedUnarchiver: rebuilds an object graph from a keyed archive, each entry of
// "$objects" at most once, checking every class against the allow-list before
// anything of it is made. Bounded in depth and in total work by the input's size.
#include "nk/foundation/keyed_unarchiver.hpp"

#include <algorithm>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>

#include "nk/foundation/array.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/keyed_archive_internal.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list.hpp"
#include "nk/foundation/property_list_internal.hpp"
#include "nk/foundation/secure_coding.hpp"
#include "nk/foundation/set.hpp"
#include "nk/foundation/url.hpp"

namespace nk {

using namespace keyed_archive_internal;

namespace {

using Allowed = std::span<const Class* const>;

struct Translations {
  std::shared_mutex lock;
  std::map<std::string, const Class*, std::less<>> classes;
};

Translations& translations() {
  static Translations* table = new Translations();  // never destroyed: used until exit
  return *table;
}

bool isAllowed(const Class& cls, Allowed allowed) {
  for (const Class* a : allowed) {
    if (a && cls.isSubclassOf(*a)) return true;
  }
  return false;
}

enum class Progress : uint8_t { kNew, kDecoding, kDone };

}  // namespace

struct KeyedUnarchiver::State {
  KeyedUnarchiver* self = nullptr;
  const Array* objects = nullptr;
  std::vector<Id> decoded;
  std::vector<Progress> progress;
  // Elements under each decoded entry counted once per path, as the property-list
  // reader counts them: shared objects must not expand into a graph that equality
  // and hashing would walk for ever.
  std::vector<uint64_t> expanded;
  uint64_t frameExpanded = 0;
  // The classes inside each decoded array, dictionary or set, so that one reached
  // again under other allowed classes can be checked whole. A host object's
  // contents were checked against the classes it asked for, and stay its own.
  std::vector<std::vector<const Class*>> contents;
  std::vector<const Class*>* frameClasses = nullptr;
  // The dictionary of the host object whose initWithCoder is running.
  const Dictionary* current = nullptr;
  size_t depth = 0;
  // Objects made plus container elements read; an archive gets about one unit per
  // byte, so that shared tables cannot multiply the work or the memory.
  uint64_t budget = 0;
  // The worst the equality tests of the sets and dictionaries so far may cost.
  uint64_t equalityWork = 0;
  Ref<Error> error;

  void fail(const std::string& reason) {
    if (!error) error = makeError(kCoderReadCorruptError, reason);
  }
  bool spend(uint64_t units) {
    if (units > budget) {
      fail("The archive asks for more objects than its size allows.");
      return false;
    }
    budget -= units;
    return true;
  }

  Id decodeReference(const Object* value, Allowed allowed);
  bool isAllowedWhole(uint64_t index, Allowed allowed);
  Id decodeEntry(uint64_t index, Allowed allowed);
  Id decodeInstance(const Dictionary& body, Allowed allowed);
  const Class* classOf(const Dictionary& body);
  Id decodeBody(const Class& cls, const Dictionary& body, Allowed allowed);
  // `sizes`, when given, receives each element's expanded count.
  bool decodeElements(const Dictionary& body, const String* key, Allowed allowed,
                      std::vector<Id>& out, std::vector<uint64_t>* sizes = nullptr);
  bool affordTable(const std::vector<Id>& members, const std::vector<uint64_t>& sizes);
  Id decodeHost(const Class& cls, const Dictionary& body);
  const Object* valueForCoderKey(std::string_view key);
  const Number* numberForKey(std::string_view key);
};

Id KeyedUnarchiver::State::decodeReference(const Object* value, Allowed allowed) {
  if (error) return nullptr;
  auto* uid = cast<PlistUID>(value);
  if (!uid) {
    fail("An archived object refers to another by something other than a UID.");
    return nullptr;
  }
  Id result = decodeEntry(uid->value(), allowed);
  if (result && frameClasses) {
    auto add = [this](const Class* cls) {
      if (std::find(frameClasses->begin(), frameClasses->end(), cls) == frameClasses->end()) {
        frameClasses->push_back(cls);
      }
    };
    add(&result->objectClass());
    for (const Class* cls : contents[uid->value()]) add(cls);
  }
  if (result) {
    frameExpanded += expanded[uid->value()];
    if (frameExpanded > plist_internal::kMaxExpandedCount) {
      fail("The archive's shared objects expand to too many elements.");
      return nullptr;
    }
  }
  return result;
}

bool KeyedUnarchiver::State::isAllowedWhole(uint64_t index, Allowed allowed) {
  auto refused = [&](const Class& cls) {
    if (isAllowed(cls, allowed)) return false;
    fail("The archive's class '" + cls.name() + "' is not among the allowed classes.");
    return true;
  };
  if (refused(decoded[index]->objectClass())) return false;
  for (const Class* cls : contents[index]) {
    if (refused(*cls)) return false;
  }
  return true;
}

Id KeyedUnarchiver::State::decodeEntry(uint64_t index, Allowed allowed) {
  if (index == 0) return nullptr;  // "$null"
  if (index >= objects->count()) {
    fail("A UID is outside the archive's object table.");
    return nullptr;
  }
  switch (progress[index]) {
    case Progress::kDone:
      return isAllowedWhole(index, allowed) ? decoded[index] : nullptr;
    case Progress::kDecoding:
      fail("The archive's objects refer to each other in a cycle.");
      return nullptr;
    case Progress::kNew:
      break;
  }
  if (!spend(1)) return nullptr;
  const Id& entry = objects->objectAtIndex(index);
  Id result;
  progress[index] = Progress::kDecoding;
  if (auto* body = cast<Dictionary>(entry.get())) {
    // Counted as the archiver counts: inline scalars add no level.
    if (depth >= kMaxDepth) {
      fail("The archive's objects are nested too deeply.");
      return nullptr;
    }
    ++depth;
    uint64_t outer = std::exchange(frameExpanded, 1);
    std::vector<const Class*> inner;
    std::vector<const Class*>* outerClasses = std::exchange(frameClasses, &inner);
    result = decodeInstance(*body, allowed);
    expanded[index] = std::exchange(frameExpanded, outer);
    frameClasses = outerClasses;
    if (cast<Array>(result.get()) || cast<Dictionary>(result.get()) || cast<Set>(result.get())) {
      contents[index] = std::move(inner);
    }
    --depth;
  } else if (cast<String>(entry.get()) || cast<Number>(entry.get()) || cast<Data>(entry.get()) ||
             cast<Date>(entry.get())) {
    if (isAllowed(entry->objectClass(), allowed)) {
      result = entry;
      expanded[index] = 1;
    } else {
      fail("The archive's class '" + entry->objectClass().name() +
           "' is not among the allowed classes.");
    }
  } else {
    fail("An entry of the archive's object table is of the wrong type.");
  }
  if (!result || error) return nullptr;
  progress[index] = Progress::kDone;
  decoded[index] = result;
  return result;
}

const Class* KeyedUnarchiver::State::classOf(const Dictionary& body) {
  auto* ref = cast<PlistUID>(body.objectForKey(NK_STR("$class")).get());
  uint64_t index = ref ? ref->value() : 0;
  const Dictionary* info = index && index < objects->count()
                               ? cast<Dictionary>(objects->objectAtIndex(index).get())
                               : nullptr;
  auto* coded = info ? cast<String>(info->objectForKey(NK_STR("$classname")).get()) : nullptr;
  std::string name;
  if (!coded || !coded->toUTF8(name)) {
    fail("An archived object does not name its class.");
    return nullptr;
  }
  const Class* cls = KeyedUnarchiver::classForClassName(name);
  if (!cls) cls = builtinClassNamed(name);
  if (!cls) cls = Class::named(name);
  if (!cls) fail("The archive's class '" + name + "' is not known.");
  return cls;
}

Id KeyedUnarchiver::State::decodeInstance(const Dictionary& body, Allowed allowed) {
  const Class* cls = classOf(body);
  if (!cls) return nullptr;
  if (!isAllowed(*cls, allowed)) {
    fail("The archive's class '" + cls->name() + "' is not among the allowed classes.");
    return nullptr;
  }
  Id result = decodeBody(*cls, body, allowed);
  if (result && !isAllowed(result->objectClass(), allowed)) {
    fail("Class '" + cls->name() + "' decoded an object of class '" + result->objectClass().name() +
         "', which is not among the allowed classes.");
    return nullptr;
  }
  return result;
}

bool KeyedUnarchiver::State::decodeElements(const Dictionary& body, const String* key,
                                            Allowed allowed, std::vector<Id>& out,
                                            std::vector<uint64_t>* sizes) {
  const Id& value = body.objectForKey(key);
  if (!value) return true;  // absent: empty
  auto* refs = cast<Array>(value.get());
  if (!refs) {
    fail("An archived collection's elements are not an array.");
    return false;
  }
  if (!spend(refs->count())) return false;
  out.reserve(refs->count());
  for (const Id& ref : *refs) {
    const uint64_t before = frameExpanded;
    Id element = decodeReference(ref.get(), allowed);
    if (!element) {
      fail("An archived collection holds nil.");
      return false;
    }
    out.push_back(std::move(element));
    if (sizes) sizes->push_back(frameExpanded - before);
  }
  return true;
}

bool KeyedUnarchiver::State::affordTable(const std::vector<Id>& members,
                                         const std::vector<uint64_t>& sizes) {
  std::vector<std::pair<const Object*, uint64_t>> sized;
  sized.reserve(members.size());
  for (size_t i = 0; i < members.size(); ++i) sized.emplace_back(members[i].get(), sizes[i]);
  equalityWork += plist_internal::worstEqualityWork(sized);
  if (equalityWork > plist_internal::kMaxEqualityWork) {
    fail("Telling apart the members of the archive's sets and dictionaries would take too long.");
    return false;
  }
  return true;
}

Id KeyedUnarchiver::State::decodeBody(const Class& cls, const Dictionary& body, Allowed allowed) {
  bool isMutable = &cls == &MutableDictionary::staticClass() ||
                   &cls == &MutableArray::staticClass() || &cls == &MutableSet::staticClass() ||
                   &cls == &MutableString::staticClass() || &cls == &MutableData::staticClass();
  if (&cls == &Dictionary::staticClass() || &cls == &MutableDictionary::staticClass()) {
    std::vector<Id> keys, values;
    std::vector<uint64_t> keySizes;
    if (!decodeElements(body, NK_STR("NS.keys"), allowed, keys, &keySizes) ||
        !decodeElements(body, NK_STR("NS.objects"), allowed, values)) {
      return nullptr;
    }
    if (keys.size() != values.size()) {
      fail("An archived dictionary has different numbers of keys and values.");
      return nullptr;
    }
    if (!affordTable(keys, keySizes)) return nullptr;
    std::vector<std::pair<Id, Id>> entries;
    entries.reserve(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
      if (!keys[i]->conformsToCopying()) {
        fail("An archived dictionary has a key that cannot be copied.");
        return nullptr;
      }
      entries.emplace_back(std::move(keys[i]), std::move(values[i]));
    }
    auto dict = Dictionary::make(entries);
    return isMutable ? dict->mutableCopy() : Id(std::move(dict));
  }
  if (&cls == &Array::staticClass() || &cls == &MutableArray::staticClass()) {
    std::vector<Id> items;
    if (!decodeElements(body, NK_STR("NS.objects"), allowed, items)) return nullptr;
    if (isMutable) return MutableArray::make(std::move(items));
    return Array::make(std::move(items));
  }
  if (&cls == &Set::staticClass() || &cls == &MutableSet::staticClass()) {
    std::vector<Id> items;
    std::vector<uint64_t> sizes;
    if (!decodeElements(body, NK_STR("NS.objects"), allowed, items, &sizes) ||
        !affordTable(items, sizes)) {
      return nullptr;
    }
    auto set = Set::make(items);
    return isMutable ? set->mutableCopy() : Id(std::move(set));
  }
  if (&cls == &String::staticClass() || &cls == &MutableString::staticClass()) {
    auto* text = cast<String>(body.objectForKey(NK_STR("NS.string")).get());
    if (!text) {
      fail("An archived string has no text.");
      return nullptr;
    }
    return isMutable ? text->mutableCopy() : text->copy();
  }
  if (&cls == &Data::staticClass() || &cls == &MutableData::staticClass()) {
    auto* bytes = cast<Data>(body.objectForKey(NK_STR("NS.data")).get());
    if (!bytes) {
      fail("An archived data object has no bytes.");
      return nullptr;
    }
    return isMutable ? bytes->mutableCopy() : bytes->copy();
  }
  if (&cls == &Date::staticClass()) {
    const Id& time = body.objectForKey(NK_STR("NS.time"));
    auto* seconds = cast<Number>(time.get());
    if (time && !seconds) {
      fail("An archived date's time is not a number.");
      return nullptr;
    }
    return Date::fromTimeIntervalSinceReferenceDate(seconds ? seconds->doubleValue() : 0.0);
  }
  if (&cls == &URL::staticClass()) {
    static const Class* const kStrings[] = {&String::staticClass()};
    static const Class* const kURLs[] = {&URL::staticClass()};
    const Id& baseRef = body.objectForKey(NK_STR("NS.base"));
    Id base = baseRef ? decodeReference(baseRef.get(), kURLs) : nullptr;
    Id relative = decodeReference(body.objectForKey(NK_STR("NS.relative")).get(), kStrings);
    if (error) return nullptr;
    Ref<URL> url =
        relative ? URL::fromStringRelativeTo(cast<String>(relative.get()), cast<URL>(base.get()))
                 : nullptr;
    if (!url) fail("An archived URL is not a valid URL.");
    return url;
  }
  if (&cls == &Null::staticClass()) return Id(Null::null());
  return decodeHost(cls, body);
}

Id KeyedUnarchiver::State::decodeHost(const Class& cls, const Dictionary& body) {
  Method* init = cls.metaclass().lookupMethod(kInitWithCoderMethod);
  if (!init || !classSupportsSecureCoding(cls)) {
    fail("Class '" + cls.name() + "' does not support secure coding.");
    return nullptr;
  }
  const Dictionary* outer = std::exchange(current, &body);
  Id result =
      reinterpret_cast<Id (*)(const Class&, KeyedUnarchiver*)>(init->implementation())(cls, self);
  current = outer;
  if (!result) fail("Class '" + cls.name() + "' could not decode its object.");
  return result;
}

const Object* KeyedUnarchiver::State::valueForCoderKey(std::string_view key) {
  if (error || !current) return nullptr;
  Ref<String> stored = storedKey(key);
  return stored ? current->objectForKey(stored.get()).get() : nullptr;
}

// Absent: nullptr. Present but not a number: a failure.
const Number* KeyedUnarchiver::State::numberForKey(std::string_view key) {
  const Object* value = valueForCoderKey(key);
  auto* number = cast<Number>(value);
  if (value && !number) fail("A coder value is not a number.");
  return number;
}

KeyedUnarchiver::KeyedUnarchiver(State& state) : state_(state) { state.self = this; }

KeyedUnarchiver::~KeyedUnarchiver() = default;

Id KeyedUnarchiver::unarchivedObjectOfClasses(std::span<const Class* const> classes,
                                              const Data* data, Ref<Error>* error) {
  State state;
  KeyedUnarchiver coder(state);
  Id root = [&]() -> Id {
    if (!data) {
      state.fail("There is no archive to decode.");
      return nullptr;
    }
    Ref<Error> readError;
    Id plist = readPropertyList({data->bytes(), data->length()}, &readError);
    if (!plist) {
      state.error =
          makeError(kCoderReadCorruptError, "The data is not a property list.", readError);
      return nullptr;
    }
    auto* archive = cast<Dictionary>(plist.get());
    auto* archiver =
        archive ? cast<String>(archive->objectForKey(NK_STR("$archiver")).get()) : nullptr;
    auto* version =
        archive ? cast<Number>(archive->objectForKey(NK_STR("$version")).get()) : nullptr;
    auto* objects =
        archive ? cast<Array>(archive->objectForKey(NK_STR("$objects")).get()) : nullptr;
    auto* top = archive ? cast<Dictionary>(archive->objectForKey(NK_STR("$top")).get()) : nullptr;
    auto* null =
        objects && objects->count() ? cast<String>(objects->objectAtIndex(0).get()) : nullptr;
    if (!archiver || !archiver->isEqual(kArchiverName()) || !version ||
        version->longLongValue() != kArchiveVersion || !objects || !top || !null ||
        !null->isEqual(kNullMarker())) {
      state.fail("The data is not a keyed archive.");
      return nullptr;
    }
    state.objects = objects;
    state.decoded.resize(objects->count());
    state.progress.assign(objects->count(), Progress::kNew);
    state.expanded.resize(objects->count());
    state.contents.resize(objects->count());
    state.budget = 2 * uint64_t{data->length()} + 1024;
    return state.decodeReference(top->objectForKey(NK_STR("root")).get(), classes);
  }();
  if (state.error) {
    if (error) *error = state.error;
    return nullptr;
  }
  return root;
}

void KeyedUnarchiver::setClassForClassName(const Class* cls, std::string_view codedName) {
  Translations& table = translations();
  std::unique_lock lock(table.lock);
  if (cls) {
    table.classes.insert_or_assign(std::string(codedName), cls);
  } else if (auto found = table.classes.find(codedName); found != table.classes.end()) {
    table.classes.erase(found);
  }
}

const Class* KeyedUnarchiver::classForClassName(std::string_view codedName) {
  Translations& table = translations();
  std::shared_lock lock(table.lock);
  auto found = table.classes.find(codedName);
  return found == table.classes.end() ? nullptr : found->second;
}

Id KeyedUnarchiver::decodeObjectOfClasses(std::span<const Class* const> classes,
                                          std::string_view key) {
  const Object* value = state_.valueForCoderKey(key);
  return value ? state_.decodeReference(value, classes) : nullptr;
}

Id KeyedUnarchiver::decodeObjectOfClass(const Class& cls, std::string_view key) {
  const Class* const classes[] = {&cls};
  return decodeObjectOfClasses(classes, key);
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
  return state_.valueForCoderKey(key) != nullptr;
}

bool KeyedUnarchiver::decodeBool(std::string_view key) {
  const Number* number = state_.numberForKey(key);
  return number && number->boolValue();
}

int64_t KeyedUnarchiver::decodeInt64(std::string_view key) {
  const Number* number = state_.numberForKey(key);
  return number ? number->longLongValue() : 0;
}

double KeyedUnarchiver::decodeDouble(std::string_view key) {
  const Number* number = state_.numberForKey(key);
  return number ? number->doubleValue() : 0.0;
}

std::vector<uint8_t> KeyedUnarchiver::decodeBytes(std::string_view key) {
  const Object* value = state_.valueForCoderKey(key);
  auto* data = cast<Data>(value);
  if (value && !data) state_.fail("A coder value is not data.");
  if (!data) return {};
  return {data->bytes(), data->bytes() + data->length()};
}

}  // namespace nk
