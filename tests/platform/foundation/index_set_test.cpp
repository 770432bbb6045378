// Index sets: runs merge and split as indexes come and go, and survive their value form.
#include "platform/foundation/index_set.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

TEST(IndexSet, RunsMergeSplitAndRoundTrip) {
  ZRBIndexSet set = ZRBIndexSet::indexSetWithIndexesInRange(200, 100);
  EXPECT_TRUE(set.containsIndex(200));
  EXPECT_TRUE(set.containsIndex(299));
  EXPECT_FALSE(set.containsIndex(300));
  EXPECT_FALSE(set.containsIndex(199));

  set.addIndex(300);  // touching: one run
  set.addIndexesInRange(100, 50);
  set.addIndexesInRange(140, 70);  // overlapping both neighbours' gap: one run again
  using Runs = std::vector<ZRBIndexSet::Run>;
  EXPECT_EQ(set.runs(), (Runs{{100, 301}}));
  set.removeIndex(150);
  set.removeIndex(100);
  set.removeIndex(300);
  set.removeIndex(5000);
  EXPECT_EQ(set.runs(), (Runs{{101, 150}, {151, 300}}));
  EXPECT_EQ(set.count(), 198u);

  set.addIndexesInRange(-1, 5);
  set.addIndexesInRange(7, 0);
  set.addIndexesInRange(LONG_MAX - 1, 10);
  EXPECT_EQ(set.runs().back(), (ZRBIndexSet::Run{LONG_MAX - 1, LONG_MAX}));

  EXPECT_EQ(ZRBIndexSet::fromRangesValue(set.rangesValue()), set);
  EXPECT_FALSE(ZRBIndexSet::fromRangesValue(ZRBValue::array({ZRBValue::array({1})})));
  EXPECT_FALSE(ZRBIndexSet::fromRangesValue(ZRBValue("x")));
}

}  // namespace
