// NotificationCenter: a locked list of observer tokens, copied for each post so
// that callbacks run without the lock and may add or remove observers.
#include "nk/system/notification_center.hpp"

#include <algorithm>

#include "nk/foundation/class.hpp"

namespace nk {
namespace {

class Observer final : public Object {
  NK_DECLARE_CLASS(Observer, Object)

 public:
  Observer(Ref<String> name, const Object* object, NotificationCallback callback,
           std::optional<Queue> queue)
      : name(std::move(name)),
        object(object),
        callback(std::move(callback)),
        queue(std::move(queue)) {}

  bool matches(const Notification* note) const noexcept {
    if (name && !nk::isEqual(name.get(), note->name().get())) return false;
    return !object || object == note->object().get();
  }

  const Ref<String> name;
  const Object* const object;
  const NotificationCallback callback;
  const std::optional<Queue> queue;
  mutable std::atomic<bool> removed{false};
};

}  // namespace

NK_DEFINE_CLASS(Notification, "Notification", Class::kCopyable);
NK_DEFINE_CLASS(NotificationCenter, "NotificationCenter");
NK_DEFINE_CLASS(Observer, "NotificationObserver");

Ref<Notification> Notification::make(Ref<String> name, Id object, Ref<Dictionary> userInfo) {
  return nk::make<Notification>(std::move(name), std::move(object), std::move(userInfo));
}

Notification::Notification(Ref<String> name, Id object, Ref<Dictionary> userInfo)
    : name_(name ? cast<String>(name->copy()) : nullptr),
      object_(std::move(object)),
      userInfo_(userInfo ? cast<Dictionary>(userInfo->copy()) : nullptr) {}

NotificationCenter* NotificationCenter::defaultCenter() noexcept {
  static NotificationCenter* const shared = [] {
    auto* center = new NotificationCenter();
    center->makeImmortal();
    return center;
  }();
  return shared;
}

Ref<NotificationCenter> NotificationCenter::make() { return nk::make<NotificationCenter>(); }

Id NotificationCenter::addObserver(const String* name, const Object* object,
                                   NotificationCallback callback, std::optional<Queue> queue) {
  Ref<String> ownName = name ? cast<String>(name->copy()) : nullptr;
  auto token =
      nk::make<Observer>(std::move(ownName), object, std::move(callback), std::move(queue));
  std::lock_guard guard(lock_);
  observers_.push_back(token);
  return token;
}

void NotificationCenter::removeObserver(const Object* token) {
  auto* observer = cast<Observer>(token);
  if (!observer) return;
  Id last;  // released after the lock is dropped
  std::lock_guard guard(lock_);
  auto found = std::find_if(observers_.begin(), observers_.end(),
                            [&](const Id& entry) { return entry.get() == observer; });
  // Only this centre's own observers: another centre's token must not silence it there.
  if (found != observers_.end()) {
    observer->removed.store(true, std::memory_order_release);
    last = std::move(*found);
    observers_.erase(found);
  }
}

void NotificationCenter::postNotification(const Notification* notification) {
  if (!notification) return;
  std::vector<Ref<Observer>> targets;
  {
    std::lock_guard guard(lock_);
    for (const auto& entry : observers_) {
      auto* observer = static_cast<Observer*>(entry.get());
      if (observer->matches(notification)) targets.emplace_back(observer);
    }
  }
  for (const auto& observer : targets) {
    if (observer->removed.load(std::memory_order_acquire) || !observer->callback) continue;
    if (observer->queue && !observer->queue->isCurrent()) {
      // Removal may come while the queue is busy with earlier work.
      observer->queue->sync([&] {
        if (!observer->removed.load(std::memory_order_acquire)) observer->callback(notification);
      });
    } else {
      observer->callback(notification);
    }
  }
}

void NotificationCenter::postNotification(const String* name, const Object* object,
                                          const Dictionary* userInfo) {
  auto note =
      Notification::make(Ref<String>(const_cast<String*>(name)), Id(const_cast<Object*>(object)),
                         Ref<Dictionary>(const_cast<Dictionary*>(userInfo)));
  postNotification(note.get());
}

size_t NotificationCenter::observerCount() const {
  std::lock_guard guard(lock_);
  return observers_.size();
}

}  // namespace nk
