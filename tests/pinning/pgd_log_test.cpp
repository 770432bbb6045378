// The pinning log: silent, without even formatting, unless a logger is installed; then each message
// reaches the logger once, formatted (the directives themselves are checked with the formatter).
#include "pinning/pgd_log.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/object.h"

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
  std::vector<std::string> lines;
  ZRB_PGDLog("before: %@", object);
  ZRB_PGDSetLoggerBlock([&lines](const std::string& line) { lines.push_back(line); });
  ZRB_PGDLog("Checking certificate with CN: %@", object);
  ZRB_PGDLog("index %ld for domain %@", 3L, std::string("example.com"));
  ZRB_PGDSetLoggerBlock(nullptr);
  ZRB_PGDLog("after: %@", object);
  EXPECT_EQ(object->descriptions, 1);
  EXPECT_EQ(lines, (std::vector<std::string>{"Checking certificate with CN: <counted>",
                                             "index 3 for domain example.com"}));
}

}  // namespace
