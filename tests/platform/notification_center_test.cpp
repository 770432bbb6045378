#include "platform/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/error.h"

namespace {

using namespace std::chrono_literals;
constexpr auto kHangGuard = 60s;

// Equal to every other Sender, so only identity can tell two apart.
class Sender final : public ZRBObject {
 public:
  bool isEqual(const ZRBObject& other) const override {
    return dynamic_cast<const Sender*>(&other) != nullptr;
  }
  std::size_t hash() const override { return 1; }
};

TEST(NotificationCenterTest, ObserversMatchByNameAndByObjectIdentity) {
  ZRBNotificationCenter center;
  auto first = std::make_shared<Sender>();
  auto second = std::make_shared<Sender>();
  auto lookalike = std::make_shared<Sender>();
  std::vector<std::string> calls;
  auto record = [&](std::string tag) {
    return [&calls, tag](const ZRBNotificationPtr& note) { calls.push_back(tag + ":" + note->name()); };
  };
  center.addObserver("a", first, nullptr, record("a-first"));
  center.addObserver("a", {}, nullptr, record("a-any"));
  center.addObserver("", second, nullptr, record("any-second"));
  center.addObserver("b", {}, nullptr, record("b-any"));
  center.addObserver("c", ZRBValue("key"), nullptr, record("c-key"));

  center.post("a", first);
  EXPECT_EQ(calls, (std::vector<std::string>{"a-first:a", "a-any:a"}));
  calls.clear();
  center.post("a", second);
  EXPECT_EQ(calls, (std::vector<std::string>{"a-any:a", "any-second:a"}));
  calls.clear();
  center.post("a", lookalike);  // equal to `first`, but another object
  EXPECT_EQ(calls, (std::vector<std::string>{"a-any:a"}));
  calls.clear();
  center.post("b");
  center.post("c", ZRBValue("key"));  // non-object values match by equality
  center.post("c", ZRBValue("other"));
  EXPECT_EQ(calls, (std::vector<std::string>{"b-any:b", "c-key:c"}));
}

TEST(NotificationCenterTest, ObjectFilterDoesNotKeepTheObjectAlive) {
  ZRBNotificationCenter center;
  auto sender = std::make_shared<Sender>();
  std::weak_ptr<Sender> weak = sender;
  int calls = 0;
  center.addObserver("n", sender, nullptr, [&](const ZRBNotificationPtr&) { ++calls; });
  sender.reset();
  EXPECT_TRUE(weak.expired());
  center.post("n", std::make_shared<Sender>());
  EXPECT_EQ(calls, 0);
}

TEST(NotificationCenterTest, DeliveryOnTheObserversQueueCarriesObjectAndUserInfo) {
  ZRBNotificationCenter center;
  auto queue = ZRBDispatchQueue::serial("test.notes.queue");
  auto sender = std::make_shared<Sender>();
  ZRBDispatchSemaphore delivered;
  std::string label;
  ZRBNotificationPtr received;
  std::thread::id syncThread;
  center.addObserver("done", {}, queue, [&](const ZRBNotificationPtr& note) {
    label = ZRBDispatch::currentQueueLabel();
    received = note;
    delivered.signal();
  });
  center.addObserver("done", {}, nullptr,
                     [&](const ZRBNotificationPtr&) { syncThread = std::this_thread::get_id(); });
  auto error = ZRBError::make(ZRBURLErrorDomain, ZRBURLErrorCancelled);
  center.post("done", sender, ZRBValue::dictionary({{"error", error}, {"count", 3}}));
  EXPECT_EQ(syncThread, std::this_thread::get_id());  // the queue-less observer ran before post returned
  ASSERT_TRUE(delivered.wait(kHangGuard));
  EXPECT_EQ(label, "test.notes.queue");
  ASSERT_TRUE(received);
  EXPECT_EQ(received->objectAs<Sender>(), sender);
  EXPECT_EQ(received->userInfo()["error"].object(), error);
  EXPECT_EQ(received->userInfo()["count"].intValue(), 3);
}

TEST(NotificationCenterTest, AddingAndRemovingDuringAPost) {
  ZRBNotificationCenter center;
  std::vector<std::string> calls;
  ZRBNotificationObserverPtr victim, self, late;
  center.addObserver("n", {}, nullptr, [&](const ZRBNotificationPtr&) {
    calls.push_back("remover");
    center.removeObserver(victim);
    if (!late)
      late =
          center.addObserver("n", {}, nullptr, [&](const ZRBNotificationPtr&) { calls.push_back("late"); });
  });
  victim =
      center.addObserver("n", {}, nullptr, [&](const ZRBNotificationPtr&) { calls.push_back("victim"); });
  self = center.addObserver("n", {}, nullptr, [&](const ZRBNotificationPtr&) {
    calls.push_back("self");
    center.removeObserver(self);
  });
  center.post("n");
  EXPECT_EQ(calls, (std::vector<std::string>{"remover", "self"}));
  calls.clear();
  center.post("n");
  EXPECT_EQ(calls, (std::vector<std::string>{"remover", "late"}));
  center.removeObserver(self);  // twice: nothing happens
}

TEST(NotificationCenterTest, RemovedObserverMissesDeliveriesAlreadyQueued) {
  ZRBNotificationCenter center;
  auto queue = ZRBDispatchQueue::serial("test.notes.removed");
  ZRBDispatchSemaphore gate;
  std::atomic<int> calls{0};
  auto token = center.addObserver("n", {}, queue, [&](const ZRBNotificationPtr&) { calls.fetch_add(1); });
  queue->async([&] { gate.wait(kHangGuard); });  // holds the delivery back
  center.post("n");
  center.removeObserver(token);
  gate.signal();
  queue->sync([] {});
  EXPECT_EQ(calls.load(), 0);
}

TEST(NotificationCenterTest, ConcurrentPostsAddsAndRemovals) {
  ZRBNotificationCenter center;
  std::atomic<int> steadyCalls{0};
  center.addObserver("n", {}, nullptr, [&](const ZRBNotificationPtr&) { steadyCalls.fetch_add(1); });
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    while (!stop) {
      auto token = center.addObserver("n", {}, ZRBDispatch::globalQueue(), [](const ZRBNotificationPtr&) {});
      center.removeObserver(token);
    }
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < 500; ++i) center.post("n");
    });
  }
  for (auto& poster : posters) poster.join();
  stop = true;
  churn.join();
  EXPECT_EQ(steadyCalls.load(), 2000);
}

}  // namespace
