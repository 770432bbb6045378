// ZRBStringWithFormat: the C conversions with their flags, %@ for descriptions of every argument
// kind, and arguments that do not match their directive.
#include "platform/foundation/string_format.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"

namespace {

class DescribedObject : public ZRBObject {
 public:
  std::string description() const override { return "<described>"; }
};

TEST(StringFormatTest, DirectivesFormatEveryArgumentKind) {
  auto object = std::make_shared<DescribedObject>();
  std::shared_ptr<DescribedObject> none;
  const std::optional<std::string> noText = std::nullopt;
  EXPECT_EQ(ZRBStringWithFormat("CN: %@", object), "CN: <described>");
  EXPECT_EQ(ZRBStringWithFormat("index %ld for domain %@, less than %lu pins for %@", 3L,
                                std::string("example.com"), 2UL, std::string_view("a.example")),
            "index 3 for domain example.com, less than 2 pins for a.example");
  EXPECT_EQ(ZRBStringWithFormat("%@ %@ %@ %@", ZRBValue(7), ZRBValue(true), ZRBValue(),
                                ZRBURL::URLWithString("https://h/p")),
            "7 1 (null) https://h/p");
  EXPECT_EQ(ZRBStringWithFormat("%@|%@|%s|%@", none, noText, "c-string", 2.5), "(null)|(null)|c-string|2.5");
  EXPECT_EQ(ZRBStringWithFormat("100%% of %5d, %-3s|, %.2f, %x, %*d", 42, "ab", 1.0 / 3, 255u, 4, 7),
            "100% of    42, ab |, 0.33, ff,    7");
  // Mismatched or missing arguments print something sensible instead of reading garbage.
  EXPECT_EQ(ZRBStringWithFormat("%d and %@ and %d", "text", 12, std::string("x")), "text and 12 and x");
  EXPECT_EQ(ZRBStringWithFormat("%@ then %@ then %q", "one"), "one then  then %q");
}

}  // namespace
