#include "platform/foundation/value.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>

namespace {

TEST(ValueTest, AbsentAndNullAreDistinctNothings) {
  ZRBValue absent;
  ZRBValue null = ZRBValue::null();
  EXPECT_TRUE(absent.isNothing() && null.isNothing());
  EXPECT_NE(absent, null);
  EXPECT_EQ(absent.description(), "(null)");
  EXPECT_EQ(null.description(), "<null>");
  EXPECT_FALSE(static_cast<bool>(absent));
  EXPECT_TRUE(static_cast<bool>(null));
  EXPECT_TRUE(ZRBValue(static_cast<const char*>(nullptr)).isAbsent());
  EXPECT_TRUE(ZRBValue(ZRBObjectPtr()).isAbsent());
}

TEST(ValueTest, ScalarDescriptions) {
  struct Case {
    ZRBValue value;
    const char* text;
  } cases[] = {
      {ZRBValue(true), "1"},
      {ZRBValue(false), "0"},
      {ZRBValue(std::numeric_limits<long long>::min()), "-9223372036854775808"},
      {ZRBValue(std::numeric_limits<unsigned long long>::max()), "18446744073709551615"},
      {ZRBValue(0.1), "0.1"},
      {ZRBValue(1.0), "1"},
      {ZRBValue(1e300), "1e+300"},
      {ZRBValue(1.0 / 3.0), "0.3333333333333333"},
      {ZRBValue(ZRBDate::fromReferenceDate(0)), "2001-01-01 00:00:00 +0000"},
      {ZRBValue::data("abc"), "{length = 3, bytes = 0x616263}"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.value.description(), c.text);
}

TEST(ValueTest, ContainerDescriptionsUseMultiLineFormWithSortedKeys) {
  ZRBValue array = ZRBValue::array({1, "two words", "word", ZRBValue::null()});
  EXPECT_EQ(array.description(), "(\n    1,\n    \"two words\",\n    word,\n    \"<null>\"\n)");
  ZRBValue dict = ZRBValue::dictionary({{"b", 2}, {"a", ZRBValue::array({})}});
  EXPECT_EQ(dict.description(), "{\n    a = (\n    );\n    b = 2;\n}");
  EXPECT_EQ(ZRBValue::set({1}).description(), "{(\n    1\n)}");
}

TEST(ValueTest, NumbersCompareAndHashByValueAcrossKinds) {
  const ZRBValue ones[] = {ZRBValue(1), ZRBValue(1u), ZRBValue(1.0), ZRBValue(true)};
  for (const auto& a : ones) {
    for (const auto& b : ones) {
      EXPECT_EQ(a, b) << a.description() << " vs " << b.description();
      EXPECT_EQ(a.hash(), b.hash());
    }
  }
  ZRBValue bigUnsigned(9223372036854775808ull);  // 2^63
  EXPECT_EQ(bigUnsigned, ZRBValue(9223372036854775808.0));
  EXPECT_EQ(bigUnsigned.hash(), ZRBValue(9223372036854775808.0).hash());
  EXPECT_NE(ZRBValue(-1), ZRBValue(std::numeric_limits<unsigned long long>::max()));
  EXPECT_NE(ZRBValue(0.5), ZRBValue(0));
  EXPECT_EQ(ZRBValue(0.0), ZRBValue(-0.0));
  // 2^53 + 1 has no double; the nearest double must not compare equal to it.
  EXPECT_NE(ZRBValue(9007199254740993ll), ZRBValue(9007199254740992.0));
  EXPECT_NE(ZRBValue(1), ZRBValue("1"));
}

TEST(ValueTest, StringsInlineAndSharedBehaveAlike) {
  std::string fourteen(14, 'x'), fifteen(15, 'x');
  ZRBValue a(fourteen), b(fifteen);
  EXPECT_EQ(a.stringView(), fourteen);
  EXPECT_EQ(b.stringView(), fifteen);
  EXPECT_EQ(a.storageIdentity(), nullptr);  // inline, no allocation
  ZRBValue copy = b;
  EXPECT_EQ(copy.storageIdentity(), b.storageIdentity());  // shared, not copied
  EXPECT_EQ(ZRBValue(std::string_view("a\0b", 3)).stringView().size(), 3u);
}

TEST(ValueTest, DictionaryKeepsInsertionOrderAndLaterDuplicatesWin) {
  for (int size : {3, 8, 9, 40}) {
    std::vector<ZRBDictionaryEntry> entries;
    for (int i = 0; i < size; ++i) entries.emplace_back(ZRBValue("k" + std::to_string(i)), ZRBValue(i));
    entries.emplace_back(ZRBValue("k1"), ZRBValue("replaced"));
    ZRBValue dict = ZRBValue::dictionary(std::move(entries));
    ASSERT_EQ(dict.count(), static_cast<std::size_t>(size)) << size;
    EXPECT_EQ(dict.entries()[1].first.stringView(), "k1");
    EXPECT_EQ(dict["k1"], ZRBValue("replaced"));
    for (int i = 0; i < size; ++i) {
      if (i != 1) {
        EXPECT_EQ(dict["k" + std::to_string(i)], ZRBValue(i)) << size;
      }
    }
    EXPECT_TRUE(dict["missing"].isAbsent());
    EXPECT_EQ(dict.entries().back().first.stringView(), "k" + std::to_string(size - 1));
  }
}

TEST(ValueTest, ContainerEqualityIgnoresOrderOnlyWhereThePlatformDoes) {
  ZRBValue d1 = ZRBValue::dictionary({{"a", 1}, {"b", ZRBValue::array({1, 2})}});
  ZRBValue d2 = ZRBValue::dictionary({{"b", ZRBValue::array({1.0, 2})}, {"a", true}});
  EXPECT_EQ(d1, d2);
  EXPECT_EQ(d1.hash(), d2.hash());
  EXPECT_NE(ZRBValue::array({1, 2}), ZRBValue::array({2, 1}));
  EXPECT_EQ(ZRBValue::set({1, 2, 3}), ZRBValue::set({3, 2, 1}));
  EXPECT_NE(d1, ZRBValue::dictionary({{"a", 1}}));
  EXPECT_NE(ZRBValue::dictionary({{"a", ZRBValue::null()}}), ZRBValue::dictionary({{"b", ZRBValue::null()}}));
}

TEST(ValueTest, SetsDropDuplicatesByEquality) {
  EXPECT_EQ(ZRBValue::set({1, 1.0, true, "1"}).count(), 2u);
  std::vector<ZRBValue> many;
  for (int i = 0; i < 100; ++i) many.emplace_back(i % 10);
  ZRBValue set = ZRBValue::set(std::move(many));
  EXPECT_EQ(set.count(), 10u);
  EXPECT_TRUE(set.containsItem(ZRBValue(7.0)));
}

TEST(ValueTest, AssigningAPartOfItselfKeepsThePartAlive) {
  ZRBValue v = ZRBValue::dictionary({{"inner", ZRBValue::dictionary({{"name", std::string(40, 'n')}})}});
  v = v["inner"];  // the only owner of "inner" is the node being replaced
  v = v["name"];
  EXPECT_EQ(v.stringView(), std::string(40, 'n'));
}

TEST(ValueTest, BuildersAndMutableCopiesLeaveTheOriginalAlone) {
  ZRBValue original = ZRBValue::dictionary({{"a", 1}, {"b", 2}});
  ZRBDictionaryBuilder copy(original);
  copy.set("a", "changed").set("c", 3);
  EXPECT_TRUE(copy.remove("b"));
  ZRBValue changed = copy.build();
  EXPECT_EQ(original, ZRBValue::dictionary({{"a", 1}, {"b", 2}}));
  EXPECT_EQ(changed, ZRBValue::dictionary({{"a", "changed"}, {"c", 3}}));
  EXPECT_EQ(changed.entries()[0].first.stringView(), "a");

  ZRBArrayBuilder array(ZRBValue::array({1}));
  array.add(2);
  EXPECT_EQ(array.build(), ZRBValue::array({1, 2}));
}

TEST(ValueTest, KindOfChecksFollowThePlatformsClasses) {
  // A bool is a number, but a number is not a bool.
  EXPECT_TRUE(ZRBValue(true).isKindOf(ZRBValueClass::Number));
  EXPECT_TRUE(ZRBValue(true).isKindOf(ZRBValueClass::Bool));
  EXPECT_FALSE(ZRBValue(1).isKindOf(ZRBValueClass::Bool));
  EXPECT_FALSE(ZRBValue("1").isKindOf(ZRBValueClass::Number));
  EXPECT_FALSE(ZRBValue().isKindOf(ZRBValueClass::Object));
}

class Named : public ZRBObject {
 public:
  explicit Named(std::string name) : name_(std::move(name)) {}
  bool isEqual(const ZRBObject& other) const override {
    auto* o = dynamic_cast<const Named*>(&other);
    return o && o->name_ == name_;
  }
  std::size_t hash() const override { return std::hash<std::string>{}(name_); }
  std::string description() const override { return "Named(" + name_ + ")"; }

 private:
  std::string name_;
};

TEST(ValueTest, ObjectsUseTheirOwnEqualityAndDescription) {
  auto object = std::make_shared<Named>("x");
  ZRBValue v(object);
  EXPECT_EQ(v.objectAs<Named>(), object);
  EXPECT_EQ(v, ZRBValue(std::make_shared<Named>("x")));
  EXPECT_NE(v, ZRBValue(std::make_shared<Named>("y")));
  EXPECT_EQ(ZRBValue::array({v}).description(), "(\n    Named(x)\n)");
  EXPECT_EQ(ZRBValue(std::make_shared<ZRBObject>()).description().rfind("<ZRBObject: 0x", 0), 0u);
}

TEST(ValueTest, SharedValuesSurviveConcurrentCopying) {
  ZRBValue shared = ZRBValue::array({ZRBValue(std::string(100, 'z')), ZRBValue::dictionary({{"k", 1}})});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([shared] {
      for (int i = 0; i < 20000; ++i) {
        ZRBValue copy = shared;
        ZRBValue inner = copy[0];
        ASSERT_EQ(inner.stringView().size(), 100u);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(shared[1]["k"], ZRBValue(1));
}

}  // namespace
