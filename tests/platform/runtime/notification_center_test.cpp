#include "platform/runtime/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/foundation/error.h"

namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;
constexpr auto kHangGuard = 60s;

// Equal to every other Sender, so only identity can tell two apart.
class Sender final : public ZRBObject {
 public:
  bool isEqual(const ZRBObject& other) const override { return dynamic_cast<const Sender*>(&other); }
  std::size_t hash() const override { return 1; }
};

TEST(NotificationCenterTest, ObserversMatchByNameAndByObjectIdentity) {
  ZRBNotificationCenter center;
  auto first = std::make_shared<Sender>(), second = std::make_shared<Sender>();
  Calls calls;
  auto add = [&](const char* name, const ZRBValue& object, std::string tag) {
    center.addObserver(name, object, nullptr, [&calls, tag](const ZRBNotificationPtr& note) {
      calls.push_back(tag + ":" + note->name());
    });
  };
  add("a", first, "a-first");
  add("a", {}, "a-any");
  add("", second, "any-second");
  add("b", {}, "b-any");
  add("c", ZRBValue("key"), "c-key");
  auto post = [&](const char* name, const ZRBValue& object) {
    center.post(name, object);
    return std::exchange(calls, {});
  };
  EXPECT_EQ(post("a", first), (Calls{"a-first:a", "a-any:a"}));
  EXPECT_EQ(post("a", second), (Calls{"a-any:a", "any-second:a"}));
  EXPECT_EQ(post("a", std::make_shared<Sender>()), Calls{"a-any:a"});  // equal to `first`, another object
  EXPECT_EQ(post("b", {}), Calls{"b-any:b"});
  EXPECT_EQ(post("c", ZRBValue("key")), Calls{"c-key:c"});  // non-object values match by equality
  EXPECT_EQ(post("c", ZRBValue("other")), Calls{});

  // The object filter does not keep its object alive; once it is gone the observer matches nothing.
  auto sender = std::make_shared<Sender>();
  std::weak_ptr<Sender> weak = sender;
  add("n", sender, "n-sender");
  sender.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(post("n", std::make_shared<Sender>()), Calls{});
}

TEST(NotificationCenterTest, DeliveryOnTheObserversQueueCarriesObjectAndUserInfo) {
  ZRBNotificationCenter center;
  auto sender = std::make_shared<Sender>();
  ZRBDispatchSemaphore delivered;
  std::string label;
  ZRBNotificationPtr received;
  std::thread::id syncThread;
  center.addObserver("done", {}, ZRBDispatchQueue::serial("test.notes.queue"),
                     [&](const ZRBNotificationPtr& note) {
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
  Calls calls;
  ZRBNotificationObserverPtr victim, self, late;
  auto recorder = [&](const char* tag) {
    return [&calls, tag](const ZRBNotificationPtr&) { calls.push_back(tag); };
  };
  center.addObserver("n", {}, nullptr, [&](const ZRBNotificationPtr& note) {
    recorder("remover")(note);
    center.removeObserver(victim);
    if (!late) late = center.addObserver("n", {}, nullptr, recorder("late"));
  });
  victim = center.addObserver("n", {}, nullptr, recorder("victim"));
  self = center.addObserver("n", {}, nullptr, [&](const ZRBNotificationPtr& note) {
    recorder("self")(note);
    center.removeObserver(self);
  });
  center.post("n");
  EXPECT_EQ(calls, (Calls{"remover", "self"}));
  calls.clear();
  center.post("n");
  EXPECT_EQ(calls, (Calls{"remover", "late"}));
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
    while (!stop)
      center.removeObserver(
          center.addObserver("n", {}, ZRBDispatch::globalQueue(), [](const ZRBNotificationPtr&) {}));
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

// A remembered count must follow every addition and removal, of its own name and of catch-alls.
TEST(NotificationCenterTest, ObservedNameFollowsAdditionsAndRemovals) {
  ZRBNotificationCenter center;
  const ZRBNotificationCenter::ObservedName watched("watched");
  auto add = [&](const char* name) {
    return center.addObserver(name, {}, nullptr, [](const ZRBNotificationPtr&) {});
  };
  EXPECT_EQ(watched.observerCount(center), 0u);
  auto own = add("watched");
  auto other = add("other");
  EXPECT_EQ(watched.observerCount(center), 1u);
  auto catchAll = add("");
  EXPECT_EQ(watched.observerCount(center), 2u);
  EXPECT_EQ(watched.observerCount(center), center.observerCount("watched"));
  center.removeObserver(own);
  EXPECT_EQ(watched.observerCount(center), 1u);
  center.removeObserver(catchAll);
  EXPECT_FALSE(watched.hasObservers(center));
  center.removeObserver(other);
  own = add("watched");
  EXPECT_TRUE(watched.hasObservers(center));
}
