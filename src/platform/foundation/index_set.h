// ZRBIndexSet: a set of non-negative integers held as sorted, disjoint, non-adjacent ranges.
//
// A value type: copies are independent. Ranges are given as (location, length); a range of length
// 0 adds nothing. Indexes run up to LONG_MAX; a range that would pass it is cut there.
#pragma once

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "platform/foundation/value.h"

class ZRBIndexSet {
 public:
  // One (first index, one past the last index) pair per run of consecutive indexes.
  using Run = std::pair<long, long>;

  ZRBIndexSet() = default;
  static ZRBIndexSet indexSetWithIndex(long index) { return indexSetWithIndexesInRange(index, 1); }
  static ZRBIndexSet indexSetWithIndexesInRange(long location, long length);

  void addIndex(long index) { addIndexesInRange(index, 1); }
  // Negative locations or lengths add nothing.
  void addIndexesInRange(long location, long length);
  void removeIndex(long index);

  bool containsIndex(long index) const noexcept;
  std::size_t count() const noexcept;
  bool empty() const noexcept { return runs_.empty(); }
  const std::vector<Run>& runs() const noexcept { return runs_; }

  // For archives: an array of [location, length] pairs, and back. A value of any other shape gives
  // nullopt.
  ZRBValue rangesValue() const;
  static std::optional<ZRBIndexSet> fromRangesValue(const ZRBValue& value);

  friend bool operator==(const ZRBIndexSet&, const ZRBIndexSet&) = default;

 private:
  std::vector<Run> runs_;
};
