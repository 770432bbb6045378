// How an application declares the model of a camera's status response and maps the body it gets
// back: the service wraps every answer in {"code", "msg", "data"}, names keys in snake case, sends
// some numbers as strings and dates in two forms.
#include <gtest/gtest.h>

#include "model/model.h"

namespace camera_example {

struct CameraStorage {
  std::string slot;
  std::uint64_t totalBytes = 0;
  std::uint64_t freeBytes = 0;
  static void modelOptions(ZRBMDModelOptions<CameraStorage>& options) {
    options.key("totalBytes", "total_bytes").key("freeBytes", "free_bytes");
  }
};
BOOST_DESCRIBE_STRUCT(CameraStorage, (), (slot, totalBytes, freeBytes))
ZRBMD_MODEL(CameraStorage);

enum class StreamState { Idle = 0, Live = 1, Recording = 2 };

struct CameraStatus {
  std::string deviceId;
  bool online = false;
  bool nightMode = false;
  int batteryPercent = -1;
  StreamState stream = StreamState::Idle;
  ZRBDate lastMotion;
  ZRBDate bootedAt;
  ZRBURLPtr snapshot;
  std::vector<CameraStorage> storages;
  std::string ssid;
  static void modelOptions(ZRBMDModelOptions<CameraStatus>& options) {
    options.key("deviceId", "device_id")
        .keys("batteryPercent", {"battery.percent", "battery_level"})
        .key("nightMode", "settings.night_mode")
        .key("stream", "stream_state")
        .key("lastMotion", "last_motion")
        .key("bootedAt", "boot_time")
        .key("snapshot", "snapshot_url")
        .key("ssid", "network.wifi.ssid")
        .willMapJSON([](const ZRBValue& body) {
          // Only answers with code 0 carry a status.
          return body["code"].intValue() == 0 && body["data"].isDictionary() ? body["data"] : ZRBValue();
        })
        .didMapModel([](CameraStatus& status) { return !status.deviceId.empty(); });
  }
};
BOOST_DESCRIBE_STRUCT(CameraStatus, (),
                      (deviceId, online, nightMode, batteryPercent, stream, lastMotion, bootedAt, snapshot,
                       storages, ssid))
ZRBMD_MODEL(CameraStatus);

TEST(CameraStatusExample, MapsTheStatusResponse) {
  const char* body = R"({
    "code": 0, "msg": "ok",
    "data": {
      "device_id": "ZC2-00F3A1", "online": "yes", "battery_level": "87",
      "settings": {"night_mode": 1, "resolution": "1080p"},
      "stream_state": "2",
      "last_motion": "2024-05-01T11:58:03.250+02:00", "boot_time": 1714500000,
      "snapshot_url": "https://cdn.example.com/snap/ZC2-00F3A1.jpg?t=1714564800",
      "storages": [{"slot": "sd", "total_bytes": "63864569856", "free_bytes": 1234567}],
      "network": {"wifi": {"ssid": "Home \u2014 5G", "rssi": -61}}
    }
  })";
  ZRBErrorPtr error;
  auto status = ZRBMDModel::modelWithJSON<CameraStatus>(body, &error);
  ASSERT_TRUE(status) << (error ? error->description() : "refused");
  EXPECT_EQ(status->deviceId, "ZC2-00F3A1");
  EXPECT_TRUE(status->online);
  EXPECT_TRUE(status->nightMode);
  EXPECT_EQ(status->batteryPercent, 87);
  EXPECT_EQ(status->stream, StreamState::Recording);
  EXPECT_EQ(status->lastMotion.secondsSince1970, 1714557483.25);
  EXPECT_EQ(status->bootedAt.secondsSince1970, 1714500000);
  ASSERT_TRUE(status->snapshot);
  EXPECT_EQ(status->snapshot->host(), "cdn.example.com");
  ASSERT_EQ(status->storages.size(), 1u);
  EXPECT_EQ(status->storages[0].totalBytes, 63864569856u);
  EXPECT_EQ(status->ssid, "Home \xE2\x80\x94 5G");

  // An error answer, and a status without its identifier, give no model.
  EXPECT_FALSE(ZRBMDModel::modelWithJSON<CameraStatus>(R"({"code":401,"msg":"token expired","data":{}})"));
  EXPECT_FALSE(ZRBMDModel::modelWithJSON<CameraStatus>(R"({"code":0,"data":{"online":true}})"));

  // Writing it back gives the service's own shape (without the envelope).
  ZRBValue written = ZRBMDModel::JSONValue(*status);
  EXPECT_EQ(written["battery"]["percent"].intValue(), 87);
  EXPECT_EQ(written["network"]["wifi"]["ssid"].string(), status->ssid);
  EXPECT_EQ(written["last_motion"].string(), "2024-05-01T09:58:03.25Z");
  EXPECT_EQ(written["storages"][0]["total_bytes"].uintValue(), 63864569856u);
}

}  // namespace camera_example
