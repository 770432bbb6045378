// The pinning log's lines, caught while an instance lives (the logger is process-wide, so one at a
// time). Lines may come from any thread.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "pinning/pgd_log.h"
#include "support/inbox.h"

class PGDLogLines {
 public:
  PGDLogLines() {
    ZRB_PGDSetLoggerBlock([this](const std::string& line) { lines_.put(line); });
  }
  ~PGDLogLines() { ZRB_PGDSetLoggerBlock(nullptr); }
  PGDLogLines(const PGDLogLines&) = delete;
  PGDLogLines& operator=(const PGDLogLines&) = delete;

  std::vector<std::string> lines() const { return lines_.now(); }
  void clear() { lines_.clear(); }
  // Index of the first line starting with `prefix` at or after `from`; -1 when none.
  long find(std::string_view prefix, long from = 0) const {
    const auto lines = lines_.now();
    for (auto i = static_cast<std::size_t>(from); i < lines.size(); ++i) {
      if (lines[i].starts_with(prefix)) return static_cast<long>(i);
    }
    return -1;
  }
  long count(std::string_view prefix) const {
    const auto lines = lines_.now();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const auto& line) { return line.starts_with(prefix); });
  }
  // Whether exactly `line` was logged.
  bool has(std::string_view line) const {
    const auto lines = lines_.now();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

 private:
  ZRBTestInbox<std::string> lines_;
};
