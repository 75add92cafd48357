// Tests of the runtime: class records, kind and member tests, method tables.
#include "nk/foundation/class.hpp"

#include <gtest/gtest.h>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/string.hpp"

namespace nk {
namespace {

class Animal : public Object {
  NK_DECLARE_CLASS(Animal, Object)
};
class Dog : public Animal {
  NK_DECLARE_CLASS(Dog, Animal)
};
class Puppy : public Dog {
  NK_DECLARE_CLASS(Puppy, Dog)
};
NK_DEFINE_CLASS(Animal, "TestAnimal");
NK_DEFINE_CLASS(Dog, "TestDog", Class::kCopyable);
NK_DEFINE_CLASS(Puppy, "TestPuppy");

const char* speakAnimal(Object*) { return "animal"; }
const char* speakDog(Object*) { return "dog"; }
const char* growl(Object*) { return "growl"; }
int count(const Class&, int n) { return n * 2; }

Imp imp(const char* (*f)(Object*)) { return reinterpret_cast<Imp>(f); }

TEST(Class, KindAndMemberTestsDiffer) {
  auto puppy = make<Puppy>();
  EXPECT_TRUE(puppy->isKindOfClass(Dog::staticClass()));
  EXPECT_TRUE(puppy->isKindOfClass(Object::staticClass()));
  EXPECT_FALSE(puppy->isMemberOfClass(Dog::staticClass()));
  EXPECT_TRUE(puppy->isMemberOfClass(Puppy::staticClass()));
  auto animal = make<Animal>();
  EXPECT_FALSE(animal->isKindOfClass(Dog::staticClass()));
  EXPECT_EQ(cast<Dog>(Id(animal)), nullptr);
  EXPECT_EQ(cast<Dog>(Id(puppy)).get(), puppy.get());
}

TEST(Class, RegistryAndNames) {
  EXPECT_EQ(Class::named("TestDog"), &Dog::staticClass());
  EXPECT_EQ(Class::named("NoSuchClass"), nullptr);
  EXPECT_EQ(Puppy::staticClass().superclass(), &Dog::staticClass());
  EXPECT_EQ(Puppy::staticClass().name(), "TestPuppy");
  // A second class under a taken name is refused.
  EXPECT_THROW(Class::registerClass("TestDog", &Object::staticClass()), ThrownObject);
  // The metaclass chain follows the class chain.
  EXPECT_EQ(Puppy::staticClass().metaclass().superclass(), &Dog::staticClass().metaclass());
}

TEST(Class, CopyableIsInherited) {
  EXPECT_FALSE(make<Animal>()->conformsToCopying());
  EXPECT_TRUE(make<Dog>()->conformsToCopying());
  EXPECT_TRUE(make<Puppy>()->conformsToCopying());
  // The default copy of a class without one raises the platform's exception.
  try {
    make<Animal>()->copy();
    FAIL() << "copy did not raise";
  } catch (const ThrownObject& e) {
    auto ex = cast<Exception>(e.object());
    ASSERT_TRUE(ex);
    EXPECT_EQ(ex->name()->utf8(), kInvalidArgumentException);
  }
}

TEST(Class, MethodsAreFoundThroughSuperclasses) {
  Class& animal = const_cast<Class&>(Animal::staticClass());
  ASSERT_TRUE(animal.addMethod("speak", imp(speakAnimal), "*16@0:8"));
  EXPECT_FALSE(animal.addMethod("speak", imp(speakDog), "*16@0:8"));  // already defined
  auto puppy = make<Puppy>();
  EXPECT_TRUE(puppy->respondsToMethod("speak"));
  EXPECT_EQ(Puppy::staticClass().ownMethod("speak"), nullptr);
  EXPECT_STREQ(invokeMethod<const char*>(puppy.get(), "speak"), "animal");
  EXPECT_EQ(Puppy::staticClass().lookupMethod("speak")->typeEncoding(), "*16@0:8");
  EXPECT_THROW(invokeMethod<const char*>(puppy.get(), "fly"), ThrownObject);
}

TEST(Class, ReplaceAndExchange) {
  Class& dog = const_cast<Class&>(Dog::staticClass());
  // Replacing an absent method adds it; replacing again returns the old one.
  EXPECT_EQ(dog.replaceMethod("bark", imp(speakDog), "*16@0:8"), nullptr);
  EXPECT_EQ(dog.replaceMethod("bark", imp(growl), "*16@0:8"), imp(speakDog));
  ASSERT_TRUE(dog.addMethod("wag", imp(speakDog), "*16@0:8"));

  Method* bark = dog.ownMethod("bark");
  Method* wag = dog.ownMethod("wag");
  Method::exchangeImplementations(*bark, *wag);
  auto d = make<Dog>();
  EXPECT_STREQ(invokeMethod<const char*>(d.get(), "bark"), "dog");
  EXPECT_STREQ(invokeMethod<const char*>(d.get(), "wag"), "growl");
}

TEST(Class, ClassMethodsLiveInTheMetaclass) {
  Class& dog = const_cast<Class&>(Dog::staticClass());
  ASSERT_TRUE(dog.metaclass().addMethod("twice", reinterpret_cast<Imp>(count), "i20@0:8i16"));
  EXPECT_EQ(invokeClassMethod<int>(Puppy::staticClass(), "twice", 21), 42);
  EXPECT_EQ(Dog::staticClass().lookupMethod("twice"), nullptr);
  EXPECT_THROW(invokeClassMethod<int>(Animal::staticClass(), "twice", 1), ThrownObject);
}

TEST(Object, DefaultDescriptionAndIdentity) {
  auto a = make<Animal>();
  auto b = make<Animal>();
  EXPECT_FALSE(a->isEqual(b.get()));
  EXPECT_TRUE(a->isEqual(a.get()));
  std::string d = a->description()->utf8();
  EXPECT_EQ(d.rfind("<TestAnimal: 0x", 0), 0u) << d;
  EXPECT_EQ(d.back(), '>');
}

TEST(Object, ReferenceCounting) {
  static int destroyed = 0;
  struct Counted : Object {
    ~Counted() override { ++destroyed; }
  };
  destroyed = 0;
  {
    Ref<Counted> a = make<Counted>();
    Ref<Counted> b = a;
    EXPECT_EQ(a->retainCount(), 2u);
    Id c = std::move(b);
    EXPECT_EQ(a->retainCount(), 2u);
    c = nullptr;
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace nk
