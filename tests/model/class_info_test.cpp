#include "model/class_info.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "model/class_registration.h"
#include "model/type_encoding.h"
#include "test_models.h"

namespace {

struct Base {
  int identifier = 0;
  static Base make(int id) { return Base{id}; }
  int doubled(int factor, const std::string& label) const {
    return identifier * factor + static_cast<int>(label.size());
  }
};
BOOST_DESCRIBE_STRUCT(Base, (), (identifier, doubled, make))
ZRBMD_MODEL(Base);

struct Derived : Base {
  std::weak_ptr<Derived> parent;
  std::shared_ptr<model_test::Storage> storage;
  std::function<void(int)> callback;
  const char* label = nullptr;
  int* counter = nullptr;
  const ZRBMDClass* kind = nullptr;
  ZRBMDSelector action;
  long double precise = 0;
  std::optional<bool> maybe;
  static void modelOptions(ZRBMDModelOptions<Derived>& options) {
    options.readonlyProperty("storage").setter("precise", "assignPrecise:");
  }
};
BOOST_DESCRIBE_STRUCT(Derived, (Base),
                      (parent, storage, callback, label, counter, kind, action, precise, maybe))
ZRBMD_MODEL(Derived);

struct Empty {};
BOOST_DESCRIBE_STRUCT(Empty, (), ())
ZRBMD_MODEL(Empty);

TEST(ModelTypeEncoding, DecodesTypesQualifiersAndBlocks) {
  struct Case {
    const char* text;
    ZRBMDEncodingType expected;
  } cases[] = {
      {"", 0},
      {"rn", ZRBMDEncodingTypeQualifierConst | ZRBMDEncodingTypeQualifierIn},
      {"r^v", ZRBMDEncodingTypeQualifierConst | ZRBMDEncodingTypePointer},
      {"l", ZRBMDEncodingTypeInt32},
      {"L", ZRBMDEncodingTypeUInt32},
      {"q", ZRBMDEncodingTypeInt64},
      {"D", ZRBMDEncodingTypeLongDouble},
      {"@?", ZRBMDEncodingTypeBlock},
      {"@?x", ZRBMDEncodingTypeObject},
      {"@\"ZRBString\"", ZRBMDEncodingTypeObject},
      {"@", ZRBMDEncodingTypeObject},
      {"NoV@?", ZRBMDEncodingTypeQualifierInout | ZRBMDEncodingTypeQualifierOut |
                    ZRBMDEncodingTypeQualifierOneway | ZRBMDEncodingTypeBlock},
      {"{CGPoint=dd}", ZRBMDEncodingTypeStruct},
      {"(u=ic)", ZRBMDEncodingTypeUnion},
      {"[4i]", ZRBMDEncodingTypeCArray},
      {"#", ZRBMDEncodingTypeClass},
      {":", ZRBMDEncodingTypeSEL},
      {"*", ZRBMDEncodingTypeCString},
      {"x", 0},
      {"rx", ZRBMDEncodingTypeQualifierConst},
  };
  for (const auto& c : cases) EXPECT_EQ(ZRBMDEncodingGetType(c.text), c.expected) << c.text;
  EXPECT_EQ(ZRBMDEncodingGetType(static_cast<const char*>(nullptr)), 0u);
}

TEST(ModelPropertyInfo, ParsesAttributesClassesAndProtocols) {
  ZRBMDClass* cls = ZRBMDClass::registerClass("PropertyInfoFixture", nullptr);
  cls->addProperty("on", {{'T', "B"}, {'N', ""}, {'G', "isOn"}, {'V', "_on"}});
  cls->addProperty("delegate", {{'T', "@\"<P1><P2>\""}, {'W', ""}, {'N', ""}});
  cls->addProperty("owner", {{'T', "@\"Storage<Sendable>\""}, {'&', ""}, {'R', ""}, {'D', ""}});
  cls->addProperty("ghost", {{'T', "@\"NoSuchClass\""}, {'C', ""}, {'S', "putGhost:"}});
  cls->addProperty("any", {{'T', "@"}});
  auto infos = ZRBMDClassInfo::classInfoWithClass(cls)->propertyInfos();

  const auto& on = *infos->at("on");
  EXPECT_EQ(on.type(), ZRBMDEncodingTypeBool | ZRBMDEncodingTypePropertyNonatomic |
                           ZRBMDEncodingTypePropertyCustomGetter);
  EXPECT_EQ(on.getter(), "isOn");
  EXPECT_EQ(on.setter(), "setOn:");
  EXPECT_EQ(on.ivarName(), "_on");

  const auto& delegate = *infos->at("delegate");
  EXPECT_EQ(delegate.cls(), nullptr);
  ASSERT_TRUE(delegate.protocols());
  EXPECT_EQ(*delegate.protocols(), (std::vector<std::string>{"P1", "P2"}));
  EXPECT_TRUE(delegate.type() & ZRBMDEncodingTypePropertyWeak);

  const auto& owner = *infos->at("owner");
  EXPECT_EQ(owner.cls(), ZRBMDClassFor<model_test::Storage>());
  EXPECT_EQ(*owner.protocols(), std::vector<std::string>{"Sendable"});
  EXPECT_EQ(owner.type() & ZRBMDEncodingTypePropertyMask, ZRBMDEncodingTypePropertyRetain |
                                                              ZRBMDEncodingTypePropertyReadonly |
                                                              ZRBMDEncodingTypePropertyDynamic);

  const auto& ghost = *infos->at("ghost");
  EXPECT_EQ(ghost.cls(), nullptr);
  EXPECT_FALSE(ghost.protocols());
  EXPECT_EQ(ghost.getter(), "ghost");
  EXPECT_EQ(ghost.setter(), "putGhost:");

  EXPECT_EQ(infos->at("any")->cls(), nullptr);
  EXPECT_FALSE(infos->at("any")->protocols());
  EXPECT_EQ(ZRBMDClassPropertyInfo::initWithProperty(nullptr), nullptr);
  EXPECT_EQ(ZRBMDClassIvarInfo::initWithIvar(nullptr), nullptr);
  EXPECT_EQ(ZRBMDClassMethodInfo::initWithMethod(nullptr), nullptr);
}

TEST(ModelClassRegistration, DescribedMembersBecomeIvarsPropertiesAndMethods) {
  auto info = ZRBMDClassInfo::classInfoWithClassName("Derived");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->cls(), ZRBMDClassFor<Derived>());
  EXPECT_FALSE(info->isMeta());
  EXPECT_EQ(info->metaCls(), ZRBMDClassFor<Derived>()->metaclass());

  struct Expected {
    const char* name;
    const char* encoding;
    ZRBMDEncodingType type;
  } expected[] = {
      {"parent", "@\"Derived\"", ZRBMDEncodingTypeObject | ZRBMDEncodingTypePropertyWeak},
      {"storage", "@\"Storage\"",
       ZRBMDEncodingTypeObject | ZRBMDEncodingTypePropertyRetain | ZRBMDEncodingTypePropertyReadonly},
      {"callback", "@?", ZRBMDEncodingTypeBlock},
      {"label", "*", ZRBMDEncodingTypeCString},
      {"counter", "^i", ZRBMDEncodingTypePointer},
      {"kind", "#", ZRBMDEncodingTypeClass},
      {"action", ":", ZRBMDEncodingTypeSEL | ZRBMDEncodingTypePropertyCopy},
      {"precise", "D", ZRBMDEncodingTypeLongDouble | ZRBMDEncodingTypePropertyCustomSetter},
      {"maybe", "@\"ZRBNumber\"", ZRBMDEncodingTypeObject | ZRBMDEncodingTypePropertyCopy},
  };
  auto properties = info->propertyInfos();
  auto ivars = info->ivarInfos();
  EXPECT_EQ(properties->size(), std::size(expected));
  for (const auto& e : expected) {
    SCOPED_TRACE(e.name);
    ASSERT_TRUE(properties->count(e.name));
    const auto& p = *properties->at(e.name);
    EXPECT_EQ(p.typeEncoding(), e.encoding);
    EXPECT_EQ(p.type(), e.type | ZRBMDEncodingTypePropertyNonatomic);
    EXPECT_EQ(p.ivarName(), e.name);
    EXPECT_EQ(ivars->at(e.name)->typeEncoding(), e.encoding);
  }
  EXPECT_EQ(properties->at("storage")->cls(), ZRBMDClassFor<model_test::Storage>());
  EXPECT_EQ(properties->at("precise")->setter(), "assignPrecise:");
  Derived sample;
  EXPECT_EQ(ivars->at("precise")->offset(),
            reinterpret_cast<char*>(&sample.precise) - reinterpret_cast<char*>(&sample));

  // Inherited members stay with the class that declares them; class operations sit on the metaclass.
  EXPECT_FALSE(properties->count("identifier"));
  auto base = info->superClassInfo();
  ASSERT_TRUE(base);
  auto methods = base->methodInfos();
  ASSERT_TRUE(methods->count("doubled"));
  const auto& doubled = *methods->at("doubled");
  EXPECT_EQ(doubled.returnTypeEncoding(), "i");
  EXPECT_EQ(doubled.argumentTypeEncodings(), (std::vector<std::string>{"@", ":", "i", "@\"ZRBString\""}));
  EXPECT_EQ(doubled.typeEncoding(), "i@:i@\"ZRBString\"");
  EXPECT_NE(doubled.imp(), nullptr);
  EXPECT_FALSE(methods->count("make"));
  auto meta = ZRBMDClassInfo::classInfoWithClass(base->metaCls());
  EXPECT_TRUE(meta->isMeta());
  EXPECT_EQ(meta->metaCls(), nullptr);
  ASSERT_TRUE(meta->methodInfos()->count("make"));
  EXPECT_EQ(meta->methodInfos()->at("make")->returnTypeEncoding(), "@\"Base\"");
}

TEST(ModelClassInfo, OneLookupBuildsTheChainToTheRoot) {
  auto info = ZRBMDClassInfo::classInfoWithClass(ZRBMDClassFor<Derived>());
  ASSERT_TRUE(info->superClassInfo());
  EXPECT_EQ(info->superClassInfo()->name(), "Base");
  EXPECT_EQ(info->superCls(), ZRBMDClassFor<Base>());
  auto root = info->superClassInfo()->superClassInfo();
  ASSERT_TRUE(root);
  EXPECT_EQ(root->name(), "ZRBObject");
  EXPECT_EQ(root->superClassInfo(), nullptr);
  EXPECT_EQ(root->superCls(), nullptr);
  // The chain is the cache's: looking the superclass up answers the same record.
  EXPECT_EQ(ZRBMDClassInfo::classInfoWithClassName("Base"), info->superClassInfo());
  EXPECT_EQ(ZRBMDClassInfo::classInfoWithClass(nullptr), nullptr);
  EXPECT_EQ(ZRBMDClassInfo::classInfoWithClassName("NoSuchClass"), nullptr);
}

TEST(ModelClassInfo, AClassWithoutMembersHasEmptyMaps) {
  auto info = ZRBMDClassInfo::classInfoWithClass(ZRBMDClassFor<Empty>());
  ASSERT_TRUE(info->propertyInfos() && info->ivarInfos() && info->methodInfos());
  EXPECT_TRUE(info->propertyInfos()->empty() && info->ivarInfos()->empty() && info->methodInfos()->empty());
}

TEST(ModelClassInfo, SetNeedUpdateRefreshesAfterARunTimeChange) {
  ZRBMDClass* cls = ZRBMDClass::registerClass("RunTimeChanged", nullptr);
  auto info = ZRBMDClassInfo::classInfoWithClass(cls);
  EXPECT_TRUE(info->propertyInfos()->empty());
  ASSERT_TRUE(cls->addProperty("added", {{'T', "q"}}));
  EXPECT_FALSE(cls->addProperty("added", {{'T', "i"}}));
  ZRBMDMethod method;
  method.name = "refresh";
  method.returnTypeEncoding = "v";
  method.argumentTypeEncodings = {"@", ":", ""};
  ASSERT_TRUE(cls->addMethod(method));

  EXPECT_TRUE(ZRBMDClassInfo::classInfoWithClass(cls)->propertyInfos()->empty());  // still cached
  auto before = info->propertyInfos();
  info->setNeedUpdate();
  EXPECT_TRUE(info->needUpdate());
  auto again = ZRBMDClassInfo::classInfoWithClass(cls);
  EXPECT_EQ(again, info);
  EXPECT_FALSE(info->needUpdate());
  ASSERT_TRUE(info->propertyInfos()->count("added"));
  EXPECT_EQ(info->propertyInfos()->at("added")->type(), ZRBMDEncodingTypeInt64);
  EXPECT_EQ(info->methodInfos()->at("refresh")->argumentTypeEncodings(),
            (std::vector<std::string>{"@", ":", ""}));
  EXPECT_TRUE(before->empty());  // maps handed out earlier stay as they were
}

TEST(ModelClassInfo, ConcurrentLookupsAgreeOnOneRecordPerClass) {
  ZRBMDClass* cls = ZRBMDClass::registerClass("ConcurrentFixture", nullptr);
  constexpr int kThreads = 8;
  std::vector<std::shared_ptr<ZRBMDClassInfo>> seen(kThreads);
  std::atomic<int> propertiesSeen{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        auto info = ZRBMDClassInfo::classInfoWithClass(cls);
        if (i == 100 && t == 0) {
          cls->addProperty("late", {{'T', "i"}});
          info->setNeedUpdate();
        }
        propertiesSeen += static_cast<int>(info->propertyInfos()->size());
        ZRBMDClassInfo::classInfoWithClassName("Derived")->superClassInfo()->propertyInfos();
        seen[t] = info;
      }
      seen[t] = ZRBMDClassInfo::classInfoWithClass(cls);
    });
  }
  for (auto& thread : threads) thread.join();
  // Records built by racing first lookups may replace each other; once stored, one record stays.
  for (const auto& info : seen) EXPECT_EQ(info->name(), "ConcurrentFixture");
  auto settled = ZRBMDClassInfo::classInfoWithClass(cls);
  settled->setNeedUpdate();
  EXPECT_EQ(ZRBMDClassInfo::classInfoWithClass(cls), settled);
  EXPECT_EQ(settled->propertyInfos()->count("late"), 1u);
  EXPECT_GT(propertiesSeen.load(), 0);
}

}  // namespace
