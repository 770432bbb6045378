// The pinning log: silence without a logger (no formatting either) and the format directives its
// messages use.
#include "pinning/pgd_log.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/object.h"
#include "platform/foundation/url.h"

namespace {

// Counts how often it is described, so a test can tell whether a message was formatted.
class CountingObject : public ZRBObject {
 public:
  std::string description() const override {
    ++descriptions;
    return "<counted>";
  }
  mutable int descriptions = 0;
};

TEST(PGDLogTest, FormatsOnlyForAnInstalledLogger) {
  auto object = std::make_shared<CountingObject>();
  std::shared_ptr<CountingObject> none;
  const std::optional<std::string> noText = std::nullopt;
  std::vector<std::string> lines;
  ZRB_PGDLog("before: %@", object);
  ZRB_PGDSetLoggerBlock([&lines](const std::string& line) { lines.push_back(line); });
  ZRB_PGDLog("Checking certificate with CN: %@", object);
  ZRB_PGDLog("index %ld for domain %@, less than %lu pins for %@", 3L, std::string("example.com"), 2UL,
             std::string_view("a.example"));
  ZRB_PGDLog("%@ %@ %@ %@", ZRBValue(7), ZRBValue(true), ZRBValue(), ZRBURL::URLWithString("https://h/p"));
  ZRB_PGDLog("%@|%@|%s|%@", none, noText, "c-string", 2.5);
  ZRB_PGDLog("100%% of %5d, %-3s|, %.2f, %x, %*d", 42, "ab", 1.0 / 3, 255u, 4, 7);
  // Mismatched or missing arguments print something sensible instead of reading garbage.
  ZRB_PGDLog("%d and %@ and %d", "text", 12, std::string("x"));
  ZRB_PGDLog("%@ then %@ then %q", "one");
  ZRB_PGDSetLoggerBlock(nullptr);
  ZRB_PGDLog("after: %@", object);
  EXPECT_EQ(object->descriptions, 1);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "Checking certificate with CN: <counted>",
                       "index 3 for domain example.com, less than 2 pins for a.example",
                       "7 1 (null) https://h/p",
                       "(null)|(null)|c-string|2.5",
                       "100% of    42, ab |, 0.33, ff,    7",
                       "text and 12 and x",
                       "one then  then %q",
                   }));
}

}  // namespace
