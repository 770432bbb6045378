// The typed models of the device-list document that the model benchmark decodes and the model
// fuzzer feeds: devices with a nested camera, storages and a location; numbers given as strings,
// dates as ISO 8601 text and as epoch seconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/class_registration.h"
#include "platform/foundation/value.h"

namespace bench_model {

struct BenchLocation {
  double lat = 0;
  double lon = 0;
  int floor = 0;
  std::optional<std::string> room;
};
BOOST_DESCRIBE_STRUCT(BenchLocation, (), (lat, lon, floor, room))
ZRBMD_MODEL(BenchLocation);

struct BenchStorage {
  std::string type;
  std::uint64_t totalBytes = 0;  // given as strings
  std::uint64_t usedBytes = 0;
  bool healthy = false;
  ZRBDate mountedAt;
};
BOOST_DESCRIBE_STRUCT(BenchStorage, (), (type, totalBytes, usedBytes, healthy, mountedAt))
ZRBMD_MODEL(BenchStorage);

struct BenchCamera {
  std::string model;
  std::string resolution;
  int fps = 0;
  bool nightVision = false;
  double fieldOfView = 0;
  std::vector<std::string> codecs;
  std::string stream;
};
BOOST_DESCRIBE_STRUCT(BenchCamera, (), (model, resolution, fps, nightVision, fieldOfView, codecs, stream))
ZRBMD_MODEL(BenchCamera);

struct BenchDevice {
  std::string id;
  std::string name;
  std::uint64_t serial = 0;  // given as a string
  bool online = false;
  double battery = 0;
  int signalDbm = 0;
  std::string firmware;
  ZRBDate lastSeen;   // ISO 8601
  ZRBDate createdAt;  // epoch seconds
  int port = 0;       // given as a string
  std::vector<std::string> tags;
  BenchCamera camera;
  std::vector<BenchStorage> storages;
  BenchLocation location;
};
BOOST_DESCRIBE_STRUCT(BenchDevice, (),
                      (id, name, serial, online, battery, signalDbm, firmware, lastSeen, createdAt, port,
                       tags, camera, storages, location))
ZRBMD_MODEL(BenchDevice);

struct BenchPage {
  int total = 0;
  std::vector<BenchDevice> devices;
};
BOOST_DESCRIBE_STRUCT(BenchPage, (), (total, devices))
ZRBMD_MODEL(BenchPage);

}  // namespace bench_model
