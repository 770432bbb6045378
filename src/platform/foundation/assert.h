// Programming-error checks.
//
// ZRBAssert(condition) reports "Invalid parameter not satisfying: <condition text>" through one
// process-wide, replaceable handler. The default handler throws ZRBAssertionFailure carrying that
// text; ZRBAssertionMode::LogAndContinue models builds in which assertions are compiled out (the
// text goes to standard error and execution goes on).
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

class ZRBAssertionFailure : public std::logic_error {
 public:
  ZRBAssertionFailure(const std::string& message, std::string_view file, int line)
      : std::logic_error(message), file_(file), line_(line) {}
  const std::string& file() const { return file_; }
  int line() const { return line_; }

 private:
  std::string file_;
  int line_;
};

// Receives the full message, the source file and the line of the failed check.
using ZRBAssertionHandler = std::function<void(const std::string& message, const char* file, int line)>;

enum class ZRBAssertionMode { Throw, LogAndContinue };

// Replaces the handler; an empty function restores the default. Returns the previous handler.
ZRBAssertionHandler ZRBSetAssertionHandler(ZRBAssertionHandler handler);
void ZRBSetAssertionMode(ZRBAssertionMode mode);

// "Invalid parameter not satisfying: %@" with the condition's text.
std::string ZRBAssertionMessage(std::string_view condition);

// Called by ZRBAssert on failure.
void ZRBAssertionFailed(std::string_view condition, const char* file, int line);
// The same for a check whose whole message is given ("Failed to write cache"), without the
// "Invalid parameter" prefix.
void ZRBAssertionFailedWithMessage(std::string message, const char* file, int line);

#define ZRBAssert(condition)                                              \
  do {                                                                    \
    if (!(condition)) ZRBAssertionFailed(#condition, __FILE__, __LINE__); \
  } while (0)

// A check whose message names something other than the literal expression (the specified texts
// sometimes name a parameter, as in "fileURL").
#define ZRBAssertNamed(condition, text)                             \
  do {                                                              \
    if (!(condition)) ZRBAssertionFailed(text, __FILE__, __LINE__); \
  } while (0)
