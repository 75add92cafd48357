// NotificationCenter: posts named notifications to the observers that
// registered for them, on the posting thread or on an observer's queue; either
// way the post returns once every observer has been called.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// What is posted: a name, an optional sender object and optional user
// information.
class Notification final : public Object {
  NK_DECLARE_CLASS(Notification, Object)

 public:
  static Ref<Notification> make(Ref<String> name, Id object, Ref<Dictionary> userInfo);
  Notification(Ref<String> name, Id object, Ref<Dictionary> userInfo);

  const Ref<String>& name() const noexcept { return name_; }
  const Id& object() const noexcept { return object_; }
  const Ref<Dictionary>& userInfo() const noexcept { return userInfo_; }

 private:
  Ref<String> name_;
  Id object_;
  Ref<Dictionary> userInfo_;
};

using NotificationCallback = std::function<void(const Notification* notification)>;

class NotificationCenter final : public Object {
  NK_DECLARE_CLASS(NotificationCenter, Object)

 public:
  // The process-wide centre.
  static NotificationCenter* defaultCenter() noexcept;
  // A centre of its own (tests, isolated components).
  static Ref<NotificationCenter> make();

  // Registers `callback` for notifications named `name` (nil: any name) sent by
  // `object` (nil: any sender; matched by identity, and not retained). Without
  // `queue` the callback runs on the posting thread during postNotification;
  // with one, it runs on that queue while the post waits for it (at once when
  // the post comes from that queue). A post that waits for a queue whose tasks
  // wait for the poster deadlocks, as a sync onto that queue would. Returns the
  // observer token to pass to removeObserver; the centre keeps the callback
  // until then.
  //   auto token = center->addObserver(NK_STR("Changed"), nullptr,
  //                                    [](const Notification* n) { ... });
  Id addObserver(const String* name, const Object* object, NotificationCallback callback,
                 std::optional<Queue> queue = std::nullopt);

  // Unregisters an observer. Once this returns the callback is not called
  // again, except for a call already running on another thread (or one that
  // another thread's post has just begun). Safe inside a callback, for the
  // observer itself or others. Unknown or nil tokens are ignored.
  void removeObserver(const Object* token);

  // Delivers to every observer registered when the post begins (an observer
  // added during delivery does not hear this notification), in the order they
  // were added.
  void postNotification(const Notification* notification);
  void postNotification(const String* name, const Object* object,
                        const Dictionary* userInfo = nullptr);
  // The same, under the platform's name.
  void postNotificationName(const String* name, const Object* object,
                            const Dictionary* userInfo = nullptr) {
    postNotification(name, object, userInfo);
  }

  // Observers registered now (for diagnostics and tests).
  size_t observerCount() const;

  NotificationCenter() = default;

 private:
  mutable std::mutex lock_;
  std::vector<Ref<Object>> observers_;  // the tokens, in the order they were added
};

}  // namespace nk
