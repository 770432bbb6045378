// Header fields shared between copies: a change to one copy never shows in another, whichever
// side changes and whatever the change, also with copies changing on several threads at once.
#include "platform/net/http_header_fields.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Fields = std::vector<ZRBHTTPHeaderFields::Field>;

TEST(HTTPHeaderFieldsTest, ACopyAndItsOriginalChangeApart) {
  const std::vector<std::pair<const char*, std::function<void(ZRBHTTPHeaderFields&)>>> changes = {
      {"set a field", [](ZRBHTTPHeaderFields& f) { f.set("accept", "x"); }},
      {"set a new field", [](ZRBHTTPHeaderFields& f) { f.set("X-New", "1"); }},
      {"set nothing", [](ZRBHTTPHeaderFields& f) { f.set("ACCEPT", std::nullopt); }},
      {"remove", [](ZRBHTTPHeaderFields& f) { f.remove("User-Agent"); }},
      {"add to a field", [](ZRBHTTPHeaderFields& f) { f.add("Accept", "y"); }},
      {"add a field", [](ZRBHTTPHeaderFields& f) { f.add("X-New", "2"); }},
      {"clear", [](ZRBHTTPHeaderFields& f) { f.clear(); }},
      {"reserve, then set",
       [](ZRBHTTPHeaderFields& f) {
         f.reserve(8);
         f.set("User-Agent", "z");
       }},
      {"assign other fields",
       [](ZRBHTTPHeaderFields& f) {
         f = ZRBHTTPHeaderFields{{"A", "b"}};
       }},
  };
  const Fields before{{"Accept", "a/b"}, {"User-Agent", "me"}};
  for (const auto& [name, change] : changes) {
    for (bool changeTheCopy : {false, true}) {
      ZRBHTTPHeaderFields original{{"Accept", "a/b"}, {"User-Agent", "me"}};
      ZRBHTTPHeaderFields copy = original;
      EXPECT_TRUE(copy.sharesFieldsWith(original));
      ZRBHTTPHeaderFields& changed = changeTheCopy ? copy : original;
      const ZRBHTTPHeaderFields& kept = changeTheCopy ? original : copy;
      change(changed);
      EXPECT_EQ(kept.fields(), before) << name << (changeTheCopy ? ", on the copy" : ", on the original");
      EXPECT_FALSE(changed.sharesFieldsWith(kept)) << name;
      EXPECT_NE(changed.fields(), before) << name;
    }
  }
}

TEST(HTTPHeaderFieldsTest, CopiesChangeOnSeveralThreadsWithoutTouchingTheShared) {
  const ZRBHTTPHeaderFields shared{{"Accept", "a/b"}, {"User-Agent", "me"}};
  const Fields before = shared.fields();
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (std::size_t t = 0; t < mismatches.size(); ++t) {
    threads.emplace_back([&shared, &mismatches, t] {
      for (int i = 0; i < 2000; ++i) {
        ZRBHTTPHeaderFields copy = shared;
        ZRBHTTPHeaderFields second = copy;  // a copy of a copy shares too
        copy.set("User-Agent", std::to_string(t));
        second.add("Accept", std::to_string(i));
        if (copy.value("user-agent") != std::to_string(t) ||
            second.value("accept") != "a/b, " + std::to_string(i) || second.value("User-Agent") != "me")
          ++mismatches[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
  EXPECT_EQ(shared.fields(), before);
}

}  // namespace
