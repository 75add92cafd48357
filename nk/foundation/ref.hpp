// Ref<T>: the intrusive smart pointer of the object model.
//
// Copying a Ref retains, destroying it releases, an empty Ref is nil. Objects start
// with one reference owned by their creator, so `nk::make<T>(...)` adopts it.
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace nk {

template <class T>
class Ref {
 public:
  using element_type = T;

  constexpr Ref() noexcept = default;
  constexpr Ref(std::nullptr_t) noexcept {}  // NOLINT: nil converts implicitly
  // Retains `p`, as a new holder of an object someone else already owns.
  Ref(T* p) noexcept : p_(p) {  // NOLINT: raw pointers convert implicitly
    if (p_) p_->retain();
  }
  Ref(const Ref& o) noexcept : Ref(o.p_) {}
  Ref(Ref&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(const Ref<U>& o) noexcept : Ref(o.get()) {}  // NOLINT
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(Ref<U>&& o) noexcept : p_(o.leak()) {}  // NOLINT
  ~Ref() {
    if (p_) p_->release();
  }

  Ref& operator=(const Ref& o) noexcept {
    Ref(o).swap(*this);
    return *this;
  }
  Ref& operator=(Ref&& o) noexcept {
    Ref(std::move(o)).swap(*this);
    return *this;
  }
  Ref& operator=(std::nullptr_t) noexcept {
    Ref().swap(*this);
    return *this;
  }

  // Takes over the reference the caller owns without retaining again.
  static Ref adopt(T* p) noexcept {
    Ref r;
    r.p_ = p;
    return r;
  }
  // Gives up ownership of the reference without releasing it.
  [[nodiscard]] T* leak() noexcept { return std::exchange(p_, nullptr); }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  void swap(Ref& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  friend bool operator==(const Ref& a, const Ref<U>& b) noexcept {
    return static_cast<const void*>(a.get()) == static_cast<const void*>(b.get());
  }
  friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
  friend bool operator==(const Ref& a, const T* b) noexcept { return a.p_ == b; }

 private:
  T* p_ = nullptr;
};

// Makes a new object and hands its first reference to the returned Ref.
template <class T, class... Args>
Ref<T> make(Args&&... args) {
  return Ref<T>::adopt(new T(std::forward<Args>(args)...));
}

}  // namespace nk

template <class T>
struct std::hash<nk::Ref<T>> {
  size_t operator()(const nk::Ref<T>& r) const noexcept { return std::hash<T*>()(r.get()); }
};
