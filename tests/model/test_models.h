// Models shared by the model tests.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "model/class_registration.h"
#include "model/model.h"

namespace model_test {

// Every kind of member the mapping converts.
struct Scalars {
  bool flag = false;
  signed char tiny = 0;
  std::uint8_t byte = 0;
  short small = 0;
  int count = 0;
  unsigned ucount = 0;
  long long big = 0;
  std::uint64_t ubig = 0;
  float ratio = 0;
  double amount = 0;
  std::string text;
  std::optional<int> maybe;
  ZRBDate when;
  ZRBURLPtr link;
  ZRBValue extra;
};
BOOST_DESCRIBE_STRUCT(Scalars, (),
                      (flag, tiny, byte, small, count, ucount, big, ubig, ratio, amount, text, maybe, when,
                       link, extra))
ZRBMD_MODEL(Scalars);

struct Storage {
  std::string kind;
  std::uint64_t capacity = 0;
  friend bool operator<(const Storage& a, const Storage& b) { return a.kind < b.kind; }
};
BOOST_DESCRIBE_STRUCT(Storage, (), (kind, capacity))
ZRBMD_MODEL(Storage);

struct Camera {
  std::string name;
  int fps = 0;
  std::vector<Storage> storages;
  std::map<std::string, Storage> storageByName;
  std::set<Storage> storageSet;
  std::shared_ptr<Storage> primary;
  std::optional<Storage> backup;
  std::vector<std::string> tags;
  ZRBDate updated;
};
BOOST_DESCRIBE_STRUCT(Camera, (),
                      (name, fps, storages, storageByName, storageSet, primary, backup, tags, updated))
ZRBMD_MODEL(Camera);

struct Device {
  std::string deviceId;
  std::string name;
  int fps = 0;
  bool on = false;
  std::string secret;
  Camera camera;
  static void modelOptions(ZRBMDModelOptions<Device>& options) {
    options.key("deviceId", "device_id")
        .key("fps", "settings.video.fps")
        .keys("name", {"name", "title", "meta.label"})
        .skip({"secret"})
        .getter("on", "isOn");
  }
};
BOOST_DESCRIBE_STRUCT(Device, (), (deviceId, name, fps, on, secret, camera))
ZRBMD_MODEL(Device);

}  // namespace model_test
