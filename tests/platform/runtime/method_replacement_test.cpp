#include "platform/runtime/method_replacement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using Greeting = std::string(const std::string& name);
constexpr ZRBMethodName kGreet{"ZRBTestGreeter", ZRBMethodKind::Class, "greetingFor:"};
constexpr ZRBMethodName kLoadTime{"ZRBTestLoadTime", ZRBMethodKind::Instance, "value"};

// Installed at load time, before the slot below exists: the registry must keep it until then.
ZRBLoadTimeRegistrar loadTimeObserver("test load-time replacement", [] {
  ZRBMethodReplacement::replace<int()>(
      kLoadTime, [](std::function<int()> previous) { return [previous] { return previous() + 100; }; });
});
ZRBReplaceableSlot<int()> loadTimeSlot(kLoadTime, [] { return 1; });

TEST(MethodReplacementTest, ReplacementsChainToThePreviousImplementation) {
  ZRBReplaceableSlot<Greeting> slot(kGreet, [](const std::string& name) { return "hello " + name; });
  slot.replace([](std::function<Greeting> previous) {
    return [previous](const std::string& name) { return "[" + previous(name) + "]"; };
  });
  // By name, as code that cannot see the owning class does it.
  EXPECT_TRUE(ZRBMethodReplacement::replace<Greeting>(kGreet, [](std::function<Greeting> previous) {
    return [previous](const std::string& name) { return previous(name + "!"); };
  }));
  EXPECT_EQ(slot.call("bob"), "[hello bob!]");
  EXPECT_EQ(ZRBMethodReplacement::find<Greeting>(kGreet), &slot);

  // The wrong signature is refused and changes nothing.
  EXPECT_FALSE(
      ZRBMethodReplacement::replace<int()>(kGreet, [](std::function<int()> previous) { return previous; }));
  EXPECT_EQ(ZRBMethodReplacement::find<int()>(kGreet), nullptr);
  // Instance and class operations of the same name are different slots.
  EXPECT_EQ(ZRBMethodReplacement::find({"ZRBTestGreeter", ZRBMethodKind::Instance, "greetingFor:"}), nullptr);

  slot.reset();
  EXPECT_EQ(slot.call("cy"), "hello cy");
}

TEST(MethodReplacementTest, SlotsUnregisterWhenDestroyed) {
  constexpr ZRBMethodName name{"ZRBTestScoped", ZRBMethodKind::Instance, "run"};
  {
    ZRBReplaceableSlot<void()> slot(name, [] {});
    EXPECT_NE(ZRBMethodReplacement::find(name), nullptr);
  }
  EXPECT_EQ(ZRBMethodReplacement::find(name), nullptr);
}

TEST(MethodReplacementTest, LoadTimeRegistrarRanBeforeMain) {
  auto ran = ZRBLoadTimeRegistrar::ranInitializers();
  EXPECT_NE(std::find(ran.begin(), ran.end(), "test load-time replacement"), ran.end());
  EXPECT_EQ(loadTimeSlot.call(), 101);
}

TEST(MethodReplacementTest, CallsRaceReplacementsSafely) {
  ZRBReplaceableSlot<int(int)> slot("ZRBTestRace", ZRBMethodKind::Instance, "add:", [](int x) { return x; });
  constexpr int kReplacements = 200;
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 4; ++t) {
    callers.emplace_back([&] {
      int last = 0;
      while (!stop) {
        int value = slot.call(0);
        // Every replacement adds one on top of the one before: a caller sees a whole chain, and
        // never an older one after a newer one.
        if (value < last || value > kReplacements) wrong.fetch_add(1);
        last = value;
      }
    });
  }
  for (int i = 0; i < kReplacements; ++i) {
    slot.replace(
        [](std::function<int(int)> previous) { return [previous](int x) { return previous(x) + 1; }; });
  }
  stop = true;
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(slot.call(0), kReplacements);
}

}  // namespace
