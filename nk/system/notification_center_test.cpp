// Tests of NotificationCenter: matching by name and by sender, removal and
// addition during delivery, the posting thread, queued delivery and concurrent
// use.
#include "nk/system/notification_center.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace nk {
namespace {

TEST(NotificationCenter, MatchesByNameAndSender) {
  auto center = NotificationCenter::make();
  auto sender = NK_STR("sender");
  auto other = String::fromUTF8("sender");  // equal, but another object
  std::vector<std::string> heard;
  auto byName = center->addObserver(NK_STR("A"), nullptr, [&](const Notification* n) {
    heard.push_back("name:" + n->name()->utf8());
  });
  auto bySender = center->addObserver(nullptr, sender, [&](const Notification* n) {
    heard.push_back("sender:" + n->name()->utf8());
  });
  auto byBoth = center->addObserver(NK_STR("B"), sender, [&](const Notification* n) {
    heard.push_back("both:" + n->name()->utf8());
  });
  center->postNotification(NK_STR("A"), nullptr);
  // A sender is matched by identity, not equality.
  center->postNotification(NK_STR("B"), other.get());
  center->postNotification(NK_STR("B"), sender);
  EXPECT_EQ(heard, (std::vector<std::string>{"name:A", "sender:B", "both:B"}));
  // the notification carries its user information
  Ref<Dictionary> seen;
  auto withInfo = center->addObserver(NK_STR("C"), nullptr,
                                      [&](const Notification* n) { seen = n->userInfo(); });
  auto info = Dictionary::make({{NK_STR("k"), NK_STR("v")}});
  center->postNotificationName(NK_STR("C"), nullptr, info.get());
  ASSERT_TRUE(seen);
  EXPECT_TRUE(seen->isEqual(info.get()));
  center->removeObserver(withInfo.get());
  // Removed observers hear nothing; unknown tokens are ignored.
  heard.clear();
  for (const Id& token : {byName, bySender, byBoth, byBoth, Id(NK_STR("not a token")), Id()}) {
    center->removeObserver(token.get());
  }
  center->postNotification(NK_STR("A"), sender);
  EXPECT_TRUE(heard.empty());
  EXPECT_EQ(center->observerCount(), 0u);
  // A token given to another centre removes nothing, there or here.
  auto token = center->addObserver(NK_STR("A"), nullptr, [&](const Notification* n) {
    heard.push_back("kept:" + n->name()->utf8());
  });
  NotificationCenter::make()->removeObserver(token.get());
  center->postNotification(NK_STR("A"), nullptr);
  EXPECT_EQ(heard, std::vector<std::string>{"kept:A"});
  center->removeObserver(token.get());
}

TEST(NotificationCenter, ChangesDuringDelivery) {
  auto center = NotificationCenter::make();
  int first = 0, second = 0, added = 0;
  Id secondToken, firstToken, adder;
  // an observer removing itself and the next one: neither is called again
  firstToken = center->addObserver(NK_STR("N"), nullptr, [&](const Notification*) {
    ++first;
    center->removeObserver(firstToken.get());
    center->removeObserver(secondToken.get());
  });
  secondToken = center->addObserver(NK_STR("N"), nullptr, [&](const Notification*) { ++second; });
  center->postNotification(NK_STR("N"), nullptr);
  center->postNotification(NK_STR("N"), nullptr);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  // an observer added during delivery hears only later notifications
  adder = center->addObserver(NK_STR("M"), nullptr, [&](const Notification*) {
    center->addObserver(NK_STR("M"), nullptr, [&](const Notification*) { ++added; });
    center->removeObserver(adder.get());
  });
  center->postNotification(NK_STR("M"), nullptr);
  EXPECT_EQ(added, 0);
  center->postNotification(NK_STR("M"), nullptr);
  EXPECT_EQ(added, 1);
}

TEST(NotificationCenter, DeliversOnThePostingThreadOrTheQueue) {
  auto center = NotificationCenter::make();
  std::thread::id seen;
  auto token = center->addObserver(NK_STR("T"), nullptr,
                                   [&](const Notification*) { seen = std::this_thread::get_id(); });
  std::thread poster([&] { center->postNotification(NK_STR("T"), nullptr); });
  std::thread::id posterId = poster.get_id();
  poster.join();
  EXPECT_EQ(seen, posterId);
  center->removeObserver(token.get());

  // A queue observer runs on its queue, in its turn among the others, and the post waits
  // for it; posted from that queue, it runs at once rather than waiting for itself.
  auto queue = Queue::serial("nk.test.notifications");
  std::vector<std::string> calls;  // the post's order makes it safe
  auto first = center->addObserver(NK_STR("Q"), nullptr,
                                   [&](const Notification*) { calls.push_back("first"); });
  auto queued = center->addObserver(
      NK_STR("Q"), nullptr,
      [&](const Notification*) { calls.push_back(queue.isCurrent() ? "queue" : "elsewhere"); },
      queue);
  auto last = center->addObserver(NK_STR("Q"), nullptr,
                                  [&](const Notification*) { calls.push_back("last"); });
  center->postNotification(NK_STR("Q"), nullptr);
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "queue", "last"}));
  calls.clear();
  queue.sync([&] { center->postNotification(NK_STR("Q"), nullptr); });
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "queue", "last"}));
  for (const auto& t : {first, queued, last}) center->removeObserver(t.get());
}

TEST(NotificationCenter, ConcurrentPostsAndRemovals) {
  auto center = NotificationCenter::make();
  std::atomic<int> calls{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) {
    posters.emplace_back([&] {
      while (!stop) center->postNotification(NK_STR("X"), nullptr);
    });
  }
  for (int round = 0; round < 500; ++round) {
    auto token = center->addObserver(NK_STR("X"), nullptr, [&](const Notification*) { ++calls; });
    center->removeObserver(token.get());
  }
  stop = true;
  for (auto& t : posters) t.join();
  EXPECT_EQ(center->observerCount(), 0u);
  // After every removal has returned and every post has ended, nothing more arrives.
  int settled = calls.load();
  center->postNotification(NK_STR("X"), nullptr);
  EXPECT_EQ(calls.load(), settled);
}

}  // namespace
}  // namespace nk
