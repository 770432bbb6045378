#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include "model/model.h"
#include "platform/foundation/json_serialization.h"
#include "test_models.h"

namespace {

using model_test::Camera;
using model_test::Device;
using model_test::Scalars;
using model_test::Storage;

// Maps from text and from a decoded value; both roads must give the same model.
template <typename T>
std::optional<T> mapBothWays(std::string_view json) {
  auto fromText = ZRBMDModel::modelWithJSON<T>(json);
  auto fromValue = ZRBMDModel::modelWithValue<T>(ZRBJSONSerialization::JSONObjectWithData(json));
  EXPECT_EQ(fromText.has_value(), fromValue.has_value()) << json;
  if (fromText && fromValue) {
    EXPECT_TRUE(ZRBMDModel::isEqual(*fromText, *fromValue)) << json;
  }
  return fromText;
}

TEST(ModelMapping, ConvertsWhatAPIsSendAndRefusesTheRest) {
  constexpr double kMay1 = 1714564800;
  struct Case {
    const char* json;
    std::function<bool(const Scalars&)> check;
  } cases[] = {
      {R"({"count":"42"})", [](const Scalars& s) { return s.count == 42; }},
      {R"({"count":"+7"})", [](const Scalars& s) { return s.count == 7; }},
      {R"({"count":" 42"})", [](const Scalars& s) { return s.count == 0; }},
      {R"({"count":3.9})", [](const Scalars& s) { return s.count == 3; }},
      {R"({"count":-3.9})", [](const Scalars& s) { return s.count == -3; }},
      {R"({"count":1e20})", [](const Scalars& s) { return s.count == 0; }},
      {R"({"count":2147483648})", [](const Scalars& s) { return s.count == 0; }},
      {R"({"count":{"a":1}})", [](const Scalars& s) { return s.count == 0; }},
      {R"({"byte":255,"tiny":-128})", [](const Scalars& s) { return s.byte == 255 && s.tiny == -128; }},
      {R"({"byte":256,"tiny":-129,"small":40000})",
       [](const Scalars& s) { return s.byte == 0 && s.tiny == 0 && s.small == 0; }},
      {R"({"ucount":-1})", [](const Scalars& s) { return s.ucount == 0; }},
      {R"({"ubig":18446744073709551615,"big":"-9223372036854775808"})",
       [](const Scalars& s) {
         return s.ubig == std::numeric_limits<std::uint64_t>::max() &&
                s.big == std::numeric_limits<long long>::min();
       }},
      {R"({"big":9223372036854775808})", [](const Scalars& s) { return s.big == 0; }},
      {R"({"flag":"yes"})", [](const Scalars& s) { return s.flag; }},
      {R"({"flag":"TRUE"})", [](const Scalars& s) { return s.flag; }},
      {R"({"flag":1})", [](const Scalars& s) { return s.flag; }},
      {R"({"text":42})", [](const Scalars& s) { return s.text == "42"; }},
      {R"({"text":-2.5})", [](const Scalars& s) { return s.text == "-2.5"; }},
      {R"({"text":false})", [](const Scalars& s) { return s.text == "false"; }},
      {R"({"text":"a\"b\u00e9"})", [](const Scalars& s) { return s.text == "a\"b\xC3\xA9"; }},
      {R"({"amount":"2.5","ratio":0.25})",
       [](const Scalars& s) { return s.amount == 2.5 && s.ratio == 0.25f; }},
      {R"({"ratio":1e300})", [](const Scalars& s) { return s.ratio == 0; }},
      {R"({"amount":"nan"})", [](const Scalars& s) { return s.amount == 0; }},
      {R"({"maybe":"7"})", [](const Scalars& s) { return s.maybe == 7; }},
      {R"({"maybe":"x"})", [](const Scalars& s) { return !s.maybe; }},
      {R"({"when":"2024-05-01T12:00:00Z"})",
       [](const Scalars& s) { return s.when.secondsSince1970 == kMay1; }},
      {R"({"when":"2024-05-01T14:00:00+02:00"})",
       [](const Scalars& s) { return s.when.secondsSince1970 == kMay1; }},
      {R"({"when":"2024-05-01 07:30:00.5-0430"})",
       [](const Scalars& s) { return s.when.secondsSince1970 == kMay1 + 0.5; }},
      {R"({"when":"2024-05-01"})",
       [](const Scalars& s) { return s.when.secondsSince1970 == kMay1 - 12 * 3600; }},
      {R"({"when":1714564800})", [](const Scalars& s) { return s.when.secondsSince1970 == kMay1; }},
      {R"({"when":"1714564800.25"})",
       [](const Scalars& s) { return s.when.secondsSince1970 == kMay1 + 0.25; }},
      {R"({"when":"2024-02-30"})", [](const Scalars& s) { return s.when.secondsSince1970 == 0; }},
      {R"({"when":"2024-05-01T25:00:00Z"})", [](const Scalars& s) { return s.when.secondsSince1970 == 0; }},
      {R"({"when":"2024-05-01T12:00:00Zjunk"})",
       [](const Scalars& s) { return s.when.secondsSince1970 == 0; }},
      {R"({"link":"https://example.com/a?b=1"})",
       [](const Scalars& s) { return s.link && s.link->absoluteString() == "https://example.com/a?b=1"; }},
      {R"({"link":"not a url"})", [](const Scalars& s) { return !s.link; }},
      {R"({"link":5})", [](const Scalars& s) { return !s.link; }},
      {R"({"extra":{"a":[1,"b",null]}})",
       [](const Scalars& s) {
         return s.extra == ZRBValue::dictionary({{"a", ZRBValue::array({1, "b", ZRBValue::null()})}});
       }},
  };
  for (const auto& c : cases) {
    auto model = mapBothWays<Scalars>(c.json);
    ASSERT_TRUE(model) << c.json;
    EXPECT_TRUE(c.check(*model)) << c.json << "\n" << ZRBMDModel::description(*model);
  }
}

// Members with values of their own, to see what a refused value leaves.
struct Preset {
  int count = 7;
  bool flag = true;
  std::string text = "a";
  std::optional<int> maybe = 3;
  ZRBValue extra = ZRBValue("x");
  std::vector<int> numbers{1};
};
BOOST_DESCRIBE_STRUCT(Preset, (), (count, flag, text, maybe, extra, numbers))
ZRBMD_MODEL(Preset);

TEST(ModelMapping, RefusedValuesLeaveThePropertyAndNullEmptiesIt) {
  struct Case {
    const char* json;
    std::function<bool(const Preset&)> check;
  } cases[] = {
      {R"({"count":"4x","flag":2,"text":[1],"maybe":"x","numbers":{}})",
       [](const Preset& p) {
         return p.count == 7 && p.flag && p.text == "a" && p.maybe == 3 && p.numbers == std::vector<int>{1};
       }},
      {R"({"flag":"maybe"})", [](const Preset& p) { return p.flag; }},
      {R"({"flag":"No"})", [](const Preset& p) { return !p.flag; }},
      {R"({"flag":0})", [](const Preset& p) { return !p.flag; }},
      {R"({"numbers":[5,"6","x",7.5,null]})",
       [](const Preset& p) {
         return p.numbers == std::vector<int>{5, 6, 7, 0};
       }},
      {R"({"count":null,"flag":null,"text":null,"maybe":null,"extra":null,"numbers":null})",
       [](const Preset& p) {
         return p.count == 0 && !p.flag && p.text.empty() && !p.maybe && p.extra.isAbsent() &&
                p.numbers.empty();
       }},
  };
  for (const auto& c : cases) {
    auto model = mapBothWays<Preset>(c.json);
    ASSERT_TRUE(model) << c.json;
    EXPECT_TRUE(c.check(*model)) << c.json << "\n" << ZRBMDModel::description(*model);
  }
}

TEST(ModelMapping, KeyPathsCandidatesAndSkippedProperties) {
  struct Case {
    const char* json;
    const char* name;
    int fps;
  } cases[] = {
      {R"({"title":"T","name":"N","settings":{"video":{"fps":"25"}}})", "N", 25},
      {R"({"meta":{"label":"L"},"title":"T"})", "T", 0},
      {R"({"meta":{"label":"L"}})", "L", 0},
      {R"({"name":null,"title":"T"})", "T", 0},
      {R"({"name":5})", "5", 0},
      {R"({"settings":{"video":"x"},"meta":"y"})", "", 0},
      {R"({"settings":{"video":{"fps":30},"other":1},"fps":99})", "", 30},
  };
  for (const auto& c : cases) {
    auto device = mapBothWays<Device>(c.json);
    ASSERT_TRUE(device) << c.json;
    EXPECT_EQ(device->name, c.name) << c.json;
    EXPECT_EQ(device->fps, c.fps) << c.json;
  }

  auto device = mapBothWays<Device>(R"({"device_id":"d1","deviceId":"no","secret":"s","on":true})");
  ASSERT_TRUE(device);
  EXPECT_EQ(device->deviceId, "d1");
  EXPECT_TRUE(device->secret.empty());
  EXPECT_TRUE(device->on);
  device->secret = "kept out";
  device->fps = 12;
  device->name = "Cam";
  ZRBValue written = ZRBMDModel::JSONValue(*device);
  EXPECT_EQ(written["device_id"].string(), "d1");
  EXPECT_EQ(written["settings"]["video"]["fps"].intValue(), 12);
  EXPECT_EQ(written["name"].string(), "Cam");
  EXPECT_FALSE(written.contains("secret"));
  EXPECT_FALSE(written.contains("title"));
  EXPECT_EQ(ZRBJSONSerialization::JSONObjectWithData(ZRBMDModel::JSONString(*device)), written);
}

struct Registered {
  std::string serial = "factory";
  std::string alias;
  static void modelOptions(ZRBMDModelOptions<Registered>& options) { options.readonlyProperty("serial"); }
};
BOOST_DESCRIBE_STRUCT(Registered, (), (serial, alias))
ZRBMD_MODEL(Registered);

TEST(ModelMapping, ReadOnlyPropertiesAreWrittenButNeverSet) {
  auto model = mapBothWays<Registered>(R"({"serial":"forged","alias":"a"})");
  ASSERT_TRUE(model);
  EXPECT_EQ(model->serial, "factory");
  EXPECT_EQ(model->alias, "a");
  EXPECT_EQ(ZRBMDModel::JSONString(*model), R"({"serial":"factory","alias":"a"})");
}

TEST(ModelMapping, ElementClassesOfContainers) {
  auto camera = mapBothWays<Camera>(R"({
    "storages": [{"kind":"sd","capacity":"64"}, "not a storage", null, {"kind":"cloud","capacity":1e3}],
    "storageByName": {"a": {"kind":"sd"}, "b": 7},
    "storageSet": [{"kind":"z"}, {"kind":"a"}, {"kind":"z"}],
    "primary": {"kind":"nvme"},
    "backup": {"kind":"usb"},
    "tags": ["x", 5, true, null, {"y":1}]
  })");
  ASSERT_TRUE(camera);
  ASSERT_EQ(camera->storages.size(), 3u);  // the string is left out; null is an empty model
  EXPECT_EQ(camera->storages[0].capacity, 64u);
  EXPECT_EQ(camera->storages[1].kind, "");
  EXPECT_EQ(camera->storages[2].capacity, 1000u);
  ASSERT_EQ(camera->storageByName.size(), 1u);
  EXPECT_EQ(camera->storageByName.at("a").kind, "sd");
  ASSERT_EQ(camera->storageSet.size(), 2u);
  EXPECT_EQ(camera->storageSet.begin()->kind, "a");
  ASSERT_TRUE(camera->primary);
  EXPECT_EQ(camera->primary->kind, "nvme");
  EXPECT_EQ(camera->backup->kind, "usb");
  EXPECT_EQ(camera->tags, (std::vector<std::string>{"x", "5", "true", ""}));

  // A value of the wrong shape leaves the property as it was.
  auto wrong = mapBothWays<Camera>(
      R"({"storages":{"kind":"sd"},"primary":"nvme","backup":[1],"storageByName":[],"tags":"x","name":{}})");
  ASSERT_TRUE(wrong);
  EXPECT_TRUE(wrong->storages.empty());
  EXPECT_FALSE(wrong->primary);
  EXPECT_FALSE(wrong->backup);
  EXPECT_TRUE(wrong->tags.empty());
  EXPECT_TRUE(wrong->name.empty());
}

struct Checked {
  std::string id;
  int version = 0;
  static void modelOptions(ZRBMDModelOptions<Checked>& options) {
    options
        .willMapJSON([](const ZRBValue& json) {
          // Envelopes {"data": {...}} are unwrapped; "refuse" refuses.
          if (json["refuse"].boolValue()) return ZRBValue();
          return json.contains("data") ? json["data"] : json;
        })
        .didMapModel([](Checked& model) { return !model.id.empty(); });
  }
};
BOOST_DESCRIBE_STRUCT(Checked, (), (id, version))
ZRBMD_MODEL(Checked);

struct Holder {
  Checked single{"preset", 1};
  std::vector<Checked> many;
  int after = 0;
};
BOOST_DESCRIBE_STRUCT(Holder, (), (single, many, after))
ZRBMD_MODEL(Holder);

TEST(ModelMapping, HooksReshapeAndRefuse) {
  EXPECT_EQ(mapBothWays<Checked>(R"({"data":{"id":"a","version":2}})")->version, 2);
  EXPECT_FALSE(mapBothWays<Checked>(R"({"version":2})"));
  EXPECT_FALSE(mapBothWays<Checked>(R"({"id":"a","refuse":true})"));

  auto holder = mapBothWays<Holder>(
      R"({"single":{"version":9},
          "many":[{"id":"x"},{"version":3},{"data":{"id":"y"}},{"id":"z","refuse":1}],"after":5})");
  ASSERT_TRUE(holder);
  EXPECT_EQ(holder->single.id, "preset");  // the refused object changed nothing
  ASSERT_EQ(holder->many.size(), 2u);
  EXPECT_EQ(holder->many[1].id, "y");
  EXPECT_EQ(holder->after, 5);

  auto list = ZRBMDModel::modelsWithJSON<Checked>(R"([{"id":"a"}, 5, {"version":1}, {"id":"b"}])");
  ASSERT_TRUE(list);
  EXPECT_EQ(list->size(), 2u);
}

Camera sampleCamera() {
  Camera camera;
  camera.name = "Porch \"cam\"\n";
  camera.fps = 25;
  camera.storages = {{"sd", 64}, {"cloud", 1ull << 40}};
  camera.storageByName = {{"x", {"nvme", 1}}};
  camera.storageSet = {{"a", 1}, {"b", 2}};
  camera.primary = std::make_shared<Storage>(Storage{"usb", 3});
  camera.backup = Storage{"tape", 4};
  camera.tags = {"outdoor", "\xE5\x85\xA5\xE5\x8F\xA3"};
  camera.updated = ZRBDate{1714564800.125};
  return camera;
}

TEST(ModelMapping, NestedModelsRoundTripThroughJSONAndArchives) {
  Camera camera = sampleCamera();
  std::string json = ZRBMDModel::JSONString(camera);
  EXPECT_NE(json.find(R"("updated":"2024-05-01T12:00:00.125Z")"), std::string::npos) << json;
  auto back = ZRBMDModel::modelWithJSON<Camera>(json);
  ASSERT_TRUE(back) << json;
  EXPECT_TRUE(ZRBMDModel::isEqual(*back, camera)) << json;
  EXPECT_EQ(ZRBMDModel::JSONValue(camera), ZRBJSONSerialization::JSONObjectWithData(json));

  auto list =
      ZRBMDModel::modelsWithJSON<Camera>(ZRBMDModel::JSONString(std::vector<Camera>{camera, Camera{}}));
  ASSERT_TRUE(list);
  ASSERT_EQ(list->size(), 2u);
  EXPECT_TRUE(ZRBMDModel::isEqual((*list)[0], camera));

  ZRBErrorPtr error;
  auto archive = ZRBMDModel::archivedData(camera, &error);
  ASSERT_TRUE(archive) << (error ? error->description() : "");
  auto unarchived = ZRBMDModel::unarchivedModel<Camera>(*archive, &error);
  ASSERT_TRUE(unarchived) << (error ? error->description() : "");
  EXPECT_TRUE(ZRBMDModel::isEqual(*unarchived, camera));
  EXPECT_FALSE(ZRBMDModel::unarchivedModel<Storage>(*archive));  // another class's archive
}

TEST(ModelMapping, CopiesEqualityAndHashingAgree) {
  Camera camera = sampleCamera();
  Camera copy = ZRBMDModel::copy(camera);
  EXPECT_NE(copy.primary, camera.primary);  // nested models are copied, not shared
  EXPECT_TRUE(ZRBMDModel::isEqual(copy, camera));

  std::vector<std::pair<std::function<void(Camera&)>, bool>> changes = {
      {[](Camera&) {}, true},
      {[](Camera& c) { c.primary = std::make_shared<Storage>(*c.primary); }, true},
      {[](Camera& c) { c.primary->capacity++; }, false},
      {[](Camera& c) { c.primary.reset(); }, false},
      {[](Camera& c) { c.backup.reset(); }, false},
      {[](Camera& c) { c.storages.pop_back(); }, false},
      {[](Camera& c) { std::swap(c.storages[0], c.storages[1]); }, false},
      {[](Camera& c) { c.storageByName["x"].kind = "sd"; }, false},
      {[](Camera& c) { c.updated.secondsSince1970 += 0.001; }, false},
  };
  for (std::size_t i = 0; i < changes.size(); ++i) {
    Camera changed = ZRBMDModel::copy(camera);
    changes[i].first(changed);
    EXPECT_EQ(ZRBMDModel::isEqual(changed, camera), changes[i].second) << i;
    if (changes[i].second) {
      EXPECT_EQ(ZRBMDModel::hash(changed), ZRBMDModel::hash(camera)) << i;
    }
  }
  Scalars zero, negativeZero;
  negativeZero.amount = -0.0;
  EXPECT_TRUE(ZRBMDModel::isEqual(zero, negativeZero));
  EXPECT_EQ(ZRBMDModel::hash(zero), ZRBMDModel::hash(negativeZero));

  std::string description = ZRBMDModel::description(camera);
  EXPECT_EQ(description.rfind("<Camera: 0x", 0), 0u) << description;
  EXPECT_NE(description.find("nvme"), std::string::npos) << description;
}

TEST(ModelMapping, ManyThreadsMapAtOnce) {
  Camera camera = sampleCamera();
  std::string json = ZRBMDModel::JSONString(camera);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        auto back = ZRBMDModel::modelWithJSON<Camera>(json);
        auto holder = ZRBMDModel::modelWithValue<Holder>(ZRBValue::dictionary({{"after", 1}}));
        if (!back || !ZRBMDModel::isEqual(*back, camera) || !holder) ++mismatches;
        if (ZRBMDModel::JSONString(camera) != json) ++mismatches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

struct Node {
  int value = 0;
  std::vector<Node> children;
};
BOOST_DESCRIBE_STRUCT(Node, (), (value, children))
ZRBMD_MODEL(Node);

TEST(ModelMapping, BadInputGivesNoModelOrDefaults) {
  struct Case {
    std::string json;
    bool model;
    bool error;
  } cases[] = {
      {"[1,2]", false, false},
      {"\"text\"", false, false},
      {"null", false, false},
      {"{\"name\":", false, true},
      {"{\"name\":\"a\"} x", false, true},
      {"{\"name\":\"a\",}", false, true},
      {"{\"name\":\"\xFF\"}", false, true},
      {"", false, true},
      {"\xEF\xBB\xBF{\"fps\":1}", true, false},
      {"{\"fps\":1,\"ignored\":[1,2,{\"deep\":[]}]}", true, false},
  };
  for (const auto& c : cases) {
    ZRBErrorPtr error;
    auto camera = ZRBMDModel::modelWithJSON<Camera>(c.json, &error);
    EXPECT_EQ(camera.has_value(), c.model) << c.json;
    EXPECT_EQ(error != nullptr, c.error) << c.json;
    if (error) {
      EXPECT_EQ(error->code(), 3840) << c.json;
    }
  }
  EXPECT_FALSE(ZRBMDModel::modelsWithJSON<Camera>("{}"));
  EXPECT_FALSE(ZRBMDModel::modelWithValue<Camera>(ZRBValue::array({1})));
  EXPECT_FALSE(ZRBMDModel::modelsWithValue<Camera>(ZRBValue::dictionary({})));

  // Nesting: within the limit it maps, beyond it the reader refuses the document; nothing crashes.
  for (int depth : {100, 600, 5000}) {
    std::string json;
    for (int i = 0; i < depth; ++i) json += "{\"value\":1,\"children\":[";
    for (int i = 0; i < depth; ++i) json += "]}";
    auto node = ZRBMDModel::modelWithJSON<Node>(json);
    if (depth == 100) {
      ASSERT_TRUE(node);
      int levels = 0;
      for (const Node* n = &*node; !n->children.empty(); n = &n->children[0]) ++levels;
      EXPECT_EQ(levels, 99);
    }
    ZRBMDModel::modelWithValue<Node>(ZRBJSONSerialization::JSONObjectWithData(json));
  }
}

}  // namespace
