// The transport's move-only work items: small closures live inline, large ones on the heap, and
// either way a closure runs where it is called and is destroyed exactly once.
#include "platform/net/transport/transport_work.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace {

// Counts the live copies of a capture and how often the closure ran.
struct Probe {
  int* alive;
  int* calls;
  Probe(int* a, int* c) : alive(a), calls(c) { ++*alive; }
  Probe(const Probe& other) : alive(other.alive), calls(other.calls) { ++*alive; }
  Probe(Probe&& other) noexcept : alive(other.alive), calls(other.calls) { ++*alive; }
  ~Probe() { --*alive; }
  void operator()() const { ++*calls; }
};

TEST(TransportWorkTest, InlineAndHeapClosuresRunAndDieOnceThroughMoves) {
  for (bool large : {false, true}) {
    int alive = 0, calls = 0;
    {
      std::vector<ZRBTransportWork> queue;
      Probe probe(&alive, &calls);
      std::array<char, ZRBTransportWork::kInlineSize> ballast{};
      if (large) {
        queue.emplace_back([probe, ballast] {
          probe();
          (void)ballast;
        });
      } else {
        queue.emplace_back([probe] { probe(); });
      }
      // Growing the vector moves the items.
      for (int i = 0; i < 100; ++i) queue.emplace_back([] {});
      ZRBTransportWork moved = std::move(queue.front());
      EXPECT_FALSE(queue.front());
      queue.front()();  // an empty item does nothing
      moved();
      moved();
      EXPECT_EQ(calls, 2) << "large: " << large;
      EXPECT_EQ(alive, 2) << "the closure's copy and the local one, large: " << large;
    }
    EXPECT_EQ(alive, 0) << "large: " << large;
  }
}

}  // namespace
