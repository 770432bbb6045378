// The pinning log's lines, caught while an instance lives (the logger is process-wide, so one at a
// time). Lines may come from any thread.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "pinning/pgd_log.h"

class PGDLogLines {
 public:
  PGDLogLines() {
    ZRB_PGDSetLoggerBlock([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~PGDLogLines() { ZRB_PGDSetLoggerBlock(nullptr); }
  PGDLogLines(const PGDLogLines&) = delete;
  PGDLogLines& operator=(const PGDLogLines&) = delete;

  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }
  // Index of the first line starting with `prefix` at or after `from`; -1 when none.
  long find(std::string_view prefix, long from = 0) {
    std::lock_guard lock(mutex_);
    for (auto i = static_cast<std::size_t>(from); i < lines_.size(); ++i) {
      if (lines_[i].starts_with(prefix)) return static_cast<long>(i);
    }
    return -1;
  }
  long count(std::string_view prefix) {
    std::lock_guard lock(mutex_);
    return std::count_if(lines_.begin(), lines_.end(),
                         [&](const auto& line) { return line.starts_with(prefix); });
  }
  // Whether exactly `line` was logged.
  bool has(std::string_view line) {
    std::lock_guard lock(mutex_);
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};
