// prm_safely_call_block: how the engine runs a user handler. The handler's form
// (zero to three object parameters, one of a fixed set of return types) is read
// from its C++ type; the value is spread over the parameters, the result boxed into
// one object, and a thrown object turned into an error instead of unwinding.
#pragma once

#include <cstddef>
#include <functional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "nk/foundation/error.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"
#include "nk/promise/prm_array.hpp"

namespace nk {

// The constant string "PRMNull" that stands in a promise's slot for "fulfilled with
// nothing". Recognised by identity only: another string with that text is a value.
String* PRMNull() noexcept;

// The error a thrown object becomes: PRMErrorDomain code 1 with the thrown object
// under PRMUnderlyingExceptionKey and, as localized description, an Exception's
// reason (left out when it has none) or any other object's description. Given nil:
// logs "Migriornop: Warning: Promise rejected with nil" and returns code 3 without
// user information.
Ref<Error> NSErrorFromException(const Id& exception);

namespace promise_internal {

[[noreturn]] void handlerAbsent() noexcept;
[[noreturn]] void raiseUnsupportedArgumentCount();
[[noreturn]] void raiseUnsupportedSignature();
Id boxUTF8(const char* text);

// ---- What a handler's parameters may be: Id, Ref<T>, or T* for object types T.

template <class P>
struct ParamKind {
  static constexpr bool kObject = false;
};
template <class T>
requires std::is_base_of_v<Object, T>
struct ParamKind<Ref<T>> {
  static constexpr bool kObject = true;
  // A value of another class arrives as nil, as nk::cast gives it.
  static Ref<T> from(const Id& value) noexcept {
    if constexpr (std::is_same_v<T, Object>) {
      return value;
    } else {
      return cast<T>(value);
    }
  }
};
template <class T>
requires std::is_base_of_v<Object, std::remove_const_t<T>>
struct ParamKind<T*> {
  static constexpr bool kObject = true;
  static T* from(const Id& value) noexcept {
    return const_cast<T*>(cast<std::remove_const_t<T>>(value.get()));
  }
};

// A parameter type is usable when, decayed, it is one of the kinds above and can be
// bound to a temporary (by value, const reference or rvalue reference).
template <class P>
constexpr bool kUsableParam = ParamKind<std::remove_cvref_t<P>>::kObject &&
                              (!std::is_lvalue_reference_v<P> ||
                               std::is_const_v<std::remove_reference_t<P>>);

// ---- The handler's form, from its C++ type.

template <class R, class... A>
struct KnownForm {
  static constexpr bool kKnown = true;
  static constexpr size_t kArity = sizeof...(A);
  static constexpr bool kParamsUsable = (kUsableParam<A> && ...);
  using Result = R;
  using Params = std::tuple<A...>;
};

template <class F, class = void>
struct FormOf {
  static constexpr bool kKnown = false;
};

template <class R, class... A>
struct FormOf<R(A...)> : KnownForm<R, A...> {};
template <class R, class... A>
struct FormOf<R(A...) noexcept> : KnownForm<R, A...> {};

template <class R, class... A>
struct FormOf<R (*)(A...)> : KnownForm<R, A...> {};
template <class R, class... A>
struct FormOf<R (*)(A...) noexcept> : KnownForm<R, A...> {};

template <class M>
struct MemberForm {
  static constexpr bool kKnown = false;
};
template <class R, class C, class... A>
struct MemberForm<R (C::*)(A...)> : KnownForm<R, A...> {};
template <class R, class C, class... A>
struct MemberForm<R (C::*)(A...) const> : KnownForm<R, A...> {};
template <class R, class C, class... A>
struct MemberForm<R (C::*)(A...) noexcept> : KnownForm<R, A...> {};
template <class R, class C, class... A>
struct MemberForm<R (C::*)(A...) const noexcept> : KnownForm<R, A...> {};

template <size_t>
using IdAt = Id;

template <class F, size_t N, class = std::make_index_sequence<N>>
struct InvocableWithIds;
template <class F, size_t N, size_t... I>
struct InvocableWithIds<F, N, std::index_sequence<I...>> {
  static constexpr bool kValue = std::is_invocable_v<F&, IdAt<I>...>;
};

template <class F, size_t N, class = std::make_index_sequence<N>>
struct IdsForm;
template <class F, size_t N, size_t... I>
struct IdsForm<F, N, std::index_sequence<I...>>
    : KnownForm<std::invoke_result_t<F&, IdAt<I>...>, IdAt<I>...> {};

// A template call operator (a generic lambda): the fewest object parameters it
// accepts, tried from zero to three.
template <class F>
struct GenericForm {
  static constexpr bool kKnown = false;
};
template <class F>
requires InvocableWithIds<F, 0>::kValue struct GenericForm<F> : IdsForm<F, 0> {
};
template <class F>
requires(!InvocableWithIds<F, 0>::kValue && InvocableWithIds<F, 1>::kValue) struct GenericForm<F>
    : IdsForm<F, 1> {
};
template <class F>
requires(!InvocableWithIds<F, 0>::kValue && !InvocableWithIds<F, 1>::kValue &&
         InvocableWithIds<F, 2>::kValue) struct GenericForm<F> : IdsForm<F, 2> {
};
template <class F>
requires(!InvocableWithIds<F, 0>::kValue && !InvocableWithIds<F, 1>::kValue &&
         !InvocableWithIds<F, 2>::kValue && InvocableWithIds<F, 3>::kValue) struct GenericForm<F>
    : IdsForm<F, 3> {
};

template <class F>
requires requires { &F::operator(); }
struct FormOf<F, void> : MemberForm<decltype(&F::operator())> {};
template <class F>
requires(std::is_class_v<F> && !requires { &F::operator(); }) struct FormOf<F, void>
    : GenericForm<F> {
};

// ---- Return kinds and their boxing.

enum class ReturnKind { kNothing, kObject, kText, kNumber, kUnsupported };

// Only an unqualified void* is the untyped pointer. A C++ string literal is a
// const char*, so text is taken with or without the qualifier.
template <class R>
constexpr ReturnKind returnKindOf() {
  using D = std::remove_cvref_t<R>;
  if constexpr (std::is_void_v<R> || std::is_same_v<D, void*>) {
    return ReturnKind::kNothing;
  } else if constexpr (ParamKind<D>::kObject) {
    return ReturnKind::kObject;
  } else if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*>) {
    return ReturnKind::kText;
  } else if constexpr (std::is_same_v<D, char> || std::is_same_v<D, signed char> ||
                       std::is_same_v<D, unsigned char> || std::is_same_v<D, short> ||
                       std::is_same_v<D, unsigned short> || std::is_same_v<D, int> ||
                       std::is_same_v<D, unsigned int> || std::is_same_v<D, long> ||
                       std::is_same_v<D, unsigned long> || std::is_same_v<D, long long> ||
                       std::is_same_v<D, unsigned long long> || std::is_same_v<D, float> ||
                       std::is_same_v<D, double> || std::is_same_v<D, bool>) {
    return ReturnKind::kNumber;
  } else {
    return ReturnKind::kUnsupported;
  }
}

// Each C type keeps its own type code in the number.
template <class D>
Ref<Number> boxNumber(D v) {
  if constexpr (std::is_same_v<D, bool>) {
    return Number::withBool(v);
  } else if constexpr (std::is_same_v<D, char> || std::is_same_v<D, signed char>) {
    return Number::withChar(static_cast<char>(v));
  } else if constexpr (std::is_same_v<D, unsigned char>) {
    return Number::withUnsignedChar(v);
  } else if constexpr (std::is_same_v<D, short>) {
    return Number::withShort(v);
  } else if constexpr (std::is_same_v<D, unsigned short>) {
    return Number::withUnsignedShort(v);
  } else if constexpr (std::is_same_v<D, int>) {
    return Number::withInt(v);
  } else if constexpr (std::is_same_v<D, unsigned int>) {
    return Number::withUnsignedInt(v);
  } else if constexpr (std::is_same_v<D, long>) {
    return Number::withLong(v);
  } else if constexpr (std::is_same_v<D, unsigned long>) {
    return Number::withUnsignedLong(v);
  } else if constexpr (std::is_same_v<D, long long>) {
    return Number::withLongLong(v);
  } else if constexpr (std::is_same_v<D, unsigned long long>) {
    return Number::withUnsignedLongLong(v);
  } else if constexpr (std::is_same_v<D, float>) {
    return Number::withFloat(v);
  } else {
    static_assert(std::is_same_v<D, double>);
    return Number::withDouble(v);
  }
}

// Argument `i` of a call with `value`: spread when the value is exactly a PRMArray.
inline const Id& argumentAt(const Id& value, size_t i) {
  static const Id kNil;
  if (value && value->isMemberOfClass(PRMArray::staticClass())) {
    return static_cast<const PRMArray*>(value.get())->at(i);
  }
  return i == 0 ? value : kNil;
}

// Whether the handler's one parameter is an Id, which can take the value over.
template <class Form>
constexpr bool takesLoneId() {
  if constexpr (Form::kArity == 1) {
    return std::is_same_v<std::remove_cvref_t<std::tuple_element_t<0, typename Form::Params>>, Id>;
  } else {
    return false;
  }
}

// Given `value` to dispose of: a lone Id parameter takes it over, saving a count pair.
template <class Form, class F, size_t... I>
decltype(auto) invokeSpread(F& f, Id& value, std::index_sequence<I...>) {
  if constexpr (takesLoneId<Form>()) {
    if (!value || !value->isMemberOfClass(PRMArray::staticClass())) {
      return std::invoke(f, std::move(value));
    }
  }
  return std::invoke(
      f, ParamKind<std::remove_cvref_t<std::tuple_element_t<I, typename Form::Params>>>::from(
             argumentAt(value, I))...);
}

template <class F>
Id callBoxed(F& f, Id& value) {
  using Form = FormOf<std::remove_cv_t<F>>;
  if constexpr (!Form::kKnown) {
    raiseUnsupportedArgumentCount();
  } else {
    constexpr ReturnKind kind = returnKindOf<typename Form::Result>();
    // The return type is judged first, then the parameter count, then the parameters.
    if constexpr (kind == ReturnKind::kUnsupported) {
      raiseUnsupportedSignature();
    } else if constexpr (Form::kArity > 3) {
      raiseUnsupportedArgumentCount();
    } else if constexpr (!Form::kParamsUsable) {
      raiseUnsupportedSignature();
    } else {
      using Seq = std::make_index_sequence<Form::kArity>;
      if constexpr (kind == ReturnKind::kNothing) {
        invokeSpread<Form>(f, value, Seq());
        return Id(PRMNull());
      } else if constexpr (kind == ReturnKind::kObject) {
        Id result(invokeSpread<Form>(f, value, Seq()));
        if (!result) return Id(PRMNull());
        return result;
      } else if constexpr (kind == ReturnKind::kText) {
        return boxUTF8(invokeSpread<Form>(f, value, Seq()));
      } else {
        using D = std::remove_cvref_t<typename Form::Result>;
        return boxNumber<D>(invokeSpread<Form>(f, value, Seq()));
      }
    }
  }
}

template <class F>
bool isAbsent(const F& f) noexcept {
  if constexpr (std::is_pointer_v<F> || std::is_member_pointer_v<F>) {
    return f == nullptr;
  } else if constexpr (std::is_class_v<F> && std::is_constructible_v<bool, const F&>) {
    return !static_cast<bool>(f);  // std::function and the like
  } else {
    return false;
  }
}

}  // namespace promise_internal

// Runs `frock` with `result` and returns its outcome as one object, never nil:
//  - PRMNull as `result` reaches the handler as nil; a PRMArray (exactly that class)
//    is spread over up to three parameters, any other value goes to the first
//    parameter with nil for the rest; a handler without parameters ignores it;
//  - parameters may be Id, Ref<T> or T* for object types T; a value that is not of
//    kind T arrives as nil;
//  - the result is the returned object, a string made from a returned `const char*`
//    (UTF-8), a Number of the returned arithmetic type with its type code, or
//    PRMNull for void, `void*`, a nil object or a null text pointer;
//  - a handler with four or more parameters, or of another return type, is not
//    called: the result is a PRMErrorDomain code-1 error (NSInvalidArgumentException
//    "Migriornop: The provided block’s argument count is unsupported.", or
//    "Migriornop" "Migriornop: Unsupported method signature… Why not fork and fix?");
//  - a thrown object (ThrownObject) becomes NSErrorFromException(object); other C++
//    exceptions pass through.
// An absent handler (a null function pointer, an empty std::function) aborts.
template <class F>
Id prm_safely_call_block(F&& frock, Id result) {
  if (promise_internal::isAbsent<std::remove_cvref_t<F>>(frock)) promise_internal::handlerAbsent();
  if (result.get() == PRMNull()) result = nullptr;
  try {
    return promise_internal::callBoxed(frock, result);
  } catch (const ThrownObject& thrown) {
    return NSErrorFromException(thrown.object());
  }
}

}  // namespace nk
