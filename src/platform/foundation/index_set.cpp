#include "platform/foundation/index_set.h"

#include <algorithm>
#include <climits>

ZRBIndexSet ZRBIndexSet::indexSetWithIndexesInRange(long location, long length) {
  ZRBIndexSet set;
  set.addIndexesInRange(location, length);
  return set;
}

void ZRBIndexSet::addIndexesInRange(long location, long length) {
  if (location < 0 || length <= 0) return;
  long end = length > LONG_MAX - location ? LONG_MAX : location + length;
  // The first run that ends at or after `location` (touching runs merge).
  auto first = std::lower_bound(runs_.begin(), runs_.end(), location,
                                [](const Run& run, long value) { return run.second < value; });
  auto last = first;
  while (last != runs_.end() && last->first <= end) {
    location = std::min(location, last->first);
    end = std::max(end, last->second);
    ++last;
  }
  first = runs_.erase(first, last);
  runs_.insert(first, Run{location, end});
}

void ZRBIndexSet::removeIndex(long index) {
  auto it = std::upper_bound(runs_.begin(), runs_.end(), index,
                             [](long value, const Run& run) { return value < run.second; });
  if (it == runs_.end() || it->first > index) return;
  Run run = *it;
  it = runs_.erase(it);
  if (index + 1 < run.second) it = runs_.insert(it, Run{index + 1, run.second});
  if (run.first < index) runs_.insert(it, Run{run.first, index});
}

bool ZRBIndexSet::containsIndex(long index) const noexcept {
  auto it = std::upper_bound(runs_.begin(), runs_.end(), index,
                             [](long value, const Run& run) { return value < run.second; });
  return it != runs_.end() && it->first <= index;
}

std::size_t ZRBIndexSet::count() const noexcept {
  std::size_t total = 0;
  for (const Run& run : runs_) total += static_cast<std::size_t>(run.second - run.first);
  return total;
}

ZRBValue ZRBIndexSet::rangesValue() const {
  std::vector<ZRBValue> ranges;
  ranges.reserve(runs_.size());
  for (const Run& run : runs_) ranges.push_back(ZRBValue::array({run.first, run.second - run.first}));
  return ZRBValue::array(std::move(ranges));
}

std::optional<ZRBIndexSet> ZRBIndexSet::fromRangesValue(const ZRBValue& value) {
  if (!value.isArray()) return std::nullopt;
  ZRBIndexSet set;
  for (const ZRBValue& range : value.items()) {
    if (!range.isArray() || range.count() != 2 || !range[0].isInteger() || !range[1].isInteger()) {
      return std::nullopt;
    }
    set.addIndexesInRange(static_cast<long>(range[0].intValue()), static_cast<long>(range[1].intValue()));
  }
  return set;
}
