#include "platform/foundation/keyed_archiver.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <limits>

#include "platform/foundation/property_list_serialization.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

class TestAddress final : public ZRBObject, public ZRBCoding {
 public:
  std::string street;
  std::int64_t zip = 0;

  std::string className() const override { return "TestAddress"; }
  std::string codingClassName() const override { return "TestAddress"; }
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override {
    coder.encodeString(street, "street");
    coder.encodeInteger(zip, "zip");
  }
  static std::shared_ptr<TestAddress> initWithCoder(ZRBKeyedUnarchiver& coder) {
    auto street = coder.decodeString("street");
    if (!street) return nullptr;
    auto address = std::make_shared<TestAddress>();
    address->street = *street;
    address->zip = coder.decodeInteger("zip").value_or(0);
    return address;
  }
};
ZRB_REGISTER_CODING_CLASS(TestAddress);

// Shaped like the records later layers archive: scalars, a date, a set of data blobs, a nested
// object, an arbitrary value map.
class TestRecord final : public ZRBObject, public ZRBCoding {
 public:
  std::int64_t version = 0;
  double ratio = 0;
  bool enabled = false;
  std::string text;
  ZRBValue created, certificates, extra;
  std::shared_ptr<TestAddress> address;

  std::string className() const override { return "TestRecord"; }
  std::string codingClassName() const override { return "TestRecord"; }
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override {
    coder.encodeInteger(version, "version");
    coder.encodeDouble(ratio, "ratio");
    coder.encodeBool(enabled, "enabled");
    coder.encodeString(text, "$text");  // a caller key that looks like a marker
    coder.encodeValue(created, "created");
    coder.encodeValue(certificates, "certificates");
    coder.encodeValue(extra, "extra");
    coder.encodeObject(address, "address");
  }
  static std::shared_ptr<TestRecord> initWithCoder(ZRBKeyedUnarchiver& coder) {
    auto record = std::make_shared<TestRecord>();
    record->version = coder.decodeInteger("version").value_or(-1);
    record->ratio = coder.decodeDouble("ratio").value_or(-1);
    record->enabled = coder.decodeBool("enabled").value_or(false);
    record->text = coder.decodeString("$text").value_or("");
    record->created = coder.decodeValue("created", ZRBValueClass::Date);
    record->certificates = coder.decodeValue("certificates", ZRBValueClass::Set);
    record->extra = coder.decodeValue("extra", ZRBValueClass::Dictionary);
    record->address = coder.decodeObjectOfClass<TestAddress>("address");
    return record;
  }
};
ZRB_REGISTER_CODING_CLASS(TestRecord);

// Decodable, but not registered as safe for secure coding.
class TestLegacy final : public ZRBObject, public ZRBCoding {
 public:
  std::string codingClassName() const override { return "TestLegacy"; }
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override { coder.encodeBool(true, "legacy"); }
  static std::shared_ptr<TestLegacy> initWithCoder(ZRBKeyedUnarchiver&) {
    return std::make_shared<TestLegacy>();
  }
};
const ZRBCodingRegistrar<TestLegacy> legacyRegistrar("TestLegacy", /*supportsSecureCoding=*/false);

class TestUnregistered final : public ZRBObject, public ZRBCoding {
 public:
  std::string codingClassName() const override { return "TestUnregistered"; }
  void encodeWithCoder(ZRBKeyedArchiver&) const override {}
};

// Encodes itself as its own child: an object graph the tree layout cannot hold.
class TestSelfReferencing final : public ZRBObject, public ZRBCoding {
 public:
  std::string codingClassName() const override { return "TestRecord"; }
  void encodeWithCoder(ZRBKeyedArchiver& coder) const override { coder.encodeObject(*this, "me"); }
};

std::shared_ptr<TestRecord> sampleRecord() {
  auto record = std::make_shared<TestRecord>();
  record->version = std::numeric_limits<std::int64_t>::min();
  record->ratio = 0.1;
  record->enabled = true;
  record->text = "caf\u00e9 \U0001F600";
  record->created = ZRBValue(ZRBDate::fromReferenceDate(7e9 + 0.123456789));  // beyond 2069, sub-microsecond
  record->certificates =
      ZRBValue::set({ZRBValue::data("cert-one"), ZRBValue::data(std::string_view("\0\1", 2))});
  record->extra = ZRBValue::dictionary({
      {"$class", ZRBValue("not a marker")},
      {"none", ZRBValue::null()},
      {"huge", ZRBValue(std::numeric_limits<unsigned long long>::max())},
      {"list", ZRBValue::array({ZRBValue(1), ZRBValue::set({ZRBValue("s")}), ZRBValue::array({})})},
  });
  record->address = std::make_shared<TestAddress>();
  record->address->street = "1 Main St";
  record->address->zip = 12345;
  return record;
}

void expectCoderError(const ZRBErrorPtr& error, long code) {
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), ZRBCocoaErrorDomain);
  EXPECT_EQ(error->code(), code) << error->description();
}

TEST(KeyedArchiverTest, RoundTripsNestedObjectsAndValues) {
  auto record = sampleRecord();
  ZRBErrorPtr error;
  auto data = ZRBKeyedArchiver::archivedDataWithRootObject(*record, true, &error);
  ASSERT_TRUE(data) << error->description();
  auto back = ZRBKeyedUnarchiver::unarchivedObjectOfClass<TestRecord>(*data, &error);
  ASSERT_TRUE(back) << error->description();
  EXPECT_EQ(back->version, record->version);
  EXPECT_EQ(back->ratio, 0.1);
  EXPECT_EQ(back->text, record->text);
  EXPECT_EQ(back->created.dateValue(), record->created.dateValue());  // exact
  EXPECT_EQ(back->certificates, record->certificates);
  EXPECT_EQ(back->extra, record->extra);
  EXPECT_EQ(back->extra["huge"].kind(), ZRBValueKind::UInt);  // equality alone lets numbers change kind
  ASSERT_TRUE(back->address);
  EXPECT_EQ(back->address->street, "1 Main St");
  EXPECT_EQ(back->address->zip, 12345);

  // The archive is a binary property list carrying the class name of each object.
  ZRBPropertyListFormat format{};
  ZRBValue plist =
      ZRBPropertyListSerialization::propertyListWithData(*data, ZRBPropertyListImmutable, &format);
  EXPECT_EQ(format, ZRBPropertyListBinaryFormat_v1_0);
  EXPECT_EQ(plist["$top"]["root"]["$class"].string(), "TestRecord");
  EXPECT_EQ(plist["$top"]["root"]["address"]["$class"].string(), "TestAddress");
}

TEST(KeyedArchiverTest, MissingAndMistypedKeysYieldNothing) {
  ZRBKeyedArchiver archiver;
  archiver.encodeInteger(7, "int");
  archiver.encodeString("text", "string");
  archiver.encodeBool(true, "bool");
  archiver.encodeObject(sampleRecord()->address, "address");
  archiver.encodeObject(static_cast<const ZRBCoding*>(nullptr), "nothing");
  ZRBKeyedUnarchiver unarchiver(archiver.encodedData());
  ASSERT_TRUE(unarchiver.isValid());

  EXPECT_TRUE(unarchiver.containsValueForKey("nothing"));
  for (const char* key : {"missing", "$int"}) {
    EXPECT_FALSE(unarchiver.containsValueForKey(key));
    EXPECT_FALSE(unarchiver.decodeInteger(key));
    EXPECT_FALSE(unarchiver.decodeObject(key));
    EXPECT_TRUE(unarchiver.decodeValue(key, ZRBValueClass::Number).isAbsent());
  }
  EXPECT_FALSE(unarchiver.error()) << "missing keys are not failures";

  EXPECT_FALSE(unarchiver.decodeBool("int"));
  EXPECT_FALSE(unarchiver.decodeString("int"));
  EXPECT_FALSE(unarchiver.decodeInteger("string"));
  EXPECT_FALSE(unarchiver.decodeDouble("bool"));
  EXPECT_EQ(unarchiver.decodeDouble("int"), 7.0);
  EXPECT_TRUE(unarchiver.decodeValue("int", ZRBValueClass::String).isAbsent());
  EXPECT_FALSE(unarchiver.decodeObjectOfClass<TestAddress>("nothing"));
  EXPECT_FALSE(unarchiver.error()) << "an object encoded as null is not a failure";

  EXPECT_FALSE(unarchiver.decodeObjectOfClass<TestRecord>("address"));
  expectCoderError(unarchiver.error(), ZRBCoderReadCorruptError);
  EXPECT_TRUE(unarchiver.decodeObjectOfClass<TestAddress>("address"));
}

TEST(KeyedArchiverTest, SecureCodingRefusesUnsafeClasses) {
  ZRBErrorPtr error;
  const TestLegacy legacy;
  const TestUnregistered unregistered;
  for (const ZRBCoding* object :
       {static_cast<const ZRBCoding*>(&legacy), static_cast<const ZRBCoding*>(&unregistered)}) {
    SCOPED_TRACE(object->codingClassName());
    EXPECT_FALSE(ZRBKeyedArchiver::archivedDataWithRootObject(*object, true, &error));
    expectCoderError(error, ZRBCoderInvalidValueError);

    auto data = ZRBKeyedArchiver::archivedDataWithRootObject(*object, false, &error);
    ASSERT_TRUE(data);
    error = nullptr;
    EXPECT_FALSE(ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBObject>(*data, &error));
    expectCoderError(error, ZRBCoderReadCorruptError);

    ZRBKeyedUnarchiver lenient(*data);
    lenient.setRequiresSecureCoding(false);
    const bool decodable = ZRBKeyedUnarchiver::isClassRegistered(object->codingClassName());
    EXPECT_EQ(static_cast<bool>(lenient.decodeObject(ZRBKeyedArchiveRootObjectKey)), decodable);
  }
}

TEST(KeyedArchiverTest, EncodingFailuresAreRecorded) {
  ZRBErrorPtr error;
  EXPECT_FALSE(ZRBKeyedArchiver::archivedDataWithRootObject(TestSelfReferencing(), false, &error));
  expectCoderError(error, ZRBCoderInvalidValueError);

  for (const ZRBValue& value :
       {ZRBValue(std::make_shared<ZRBObject>()), ZRBValue::classTag(ZRBValueClass::Data),
        ZRBValue(std::string_view("\xff"))}) {
    ZRBKeyedArchiver archiver;
    archiver.encodeValue(value, "bad");
    EXPECT_TRUE(archiver.encodedData().empty()) << value.description();
    expectCoderError(archiver.error(), ZRBCoderInvalidValueError);
  }
}

TEST(KeyedArchiverTest, BytesThatAreNotArchivesAreRefused) {
  const Bytes archive = *ZRBKeyedArchiver::archivedDataWithRootObject(*sampleRecord(), true);
  auto plistBytes = [](const ZRBValue& v) {
    return *ZRBPropertyListSerialization::dataWithPropertyList(v, ZRBPropertyListBinaryFormat_v1_0);
  };
  std::vector<std::pair<std::string, Bytes>> cases = {
      {"empty", {}},
      {"garbage", Bytes{0xde, 0xad, 0xbe, 0xef}},
      {"plain property list", plistBytes(ZRBValue::dictionary({{"root", ZRBValue(1)}}))},
      {"future version", plistBytes(ZRBValue::dictionary({{"$archiver", ZRBValue("ZRBKeyedArchiver")},
                                                          {"$version", ZRBValue(2)},
                                                          {"$top", ZRBValue::dictionary({})}}))},
  };
  for (std::size_t length = 0; length < archive.size(); length += 7) {
    cases.emplace_back("prefix " + std::to_string(length), Bytes(archive.begin(), archive.begin() + length));
  }
  for (const auto& [label, data] : cases) {
    ZRBErrorPtr error;
    ZRBKeyedUnarchiver unarchiver(data, &error);
    EXPECT_FALSE(unarchiver.isValid()) << label;
    expectCoderError(error, ZRBCoderReadCorruptError);
    EXPECT_FALSE(unarchiver.decodeObject(ZRBKeyedArchiveRootObjectKey)) << label;
    EXPECT_FALSE(ZRBKeyedUnarchiver::unarchivedObjectOfClass<TestRecord>(data)) << label;
  }

  // A well-formed archive whose values carry an unknown marker or a malformed object.
  ZRBValue forged = ZRBValue::dictionary(
      {{"$archiver", ZRBValue("ZRBKeyedArchiver")},
       {"$version", ZRBValue(1)},
       {"$top", ZRBValue::dictionary({{"value", ZRBValue::dictionary({{"$bogus", ZRBValue(1)}})},
                                      {"object", ZRBValue::dictionary({{"$class", ZRBValue(5)}})}})}});
  ZRBKeyedUnarchiver unarchiver(plistBytes(forged));
  ASSERT_TRUE(unarchiver.isValid());
  EXPECT_TRUE(unarchiver.decodeValue("value", ZRBValueClass::Dictionary).isAbsent());
  EXPECT_FALSE(unarchiver.decodeObject("object"));
  expectCoderError(unarchiver.error(), ZRBCoderReadCorruptError);
}

TEST(KeyedArchiverTest, FileRoundTrip) {
  const std::string path = ::testing::TempDir() + "keyed_archiver_test_" + std::to_string(::getpid());
  ZRBErrorPtr error;
  ASSERT_TRUE(ZRBKeyedArchiver::archiveRootObjectToFile(*sampleRecord(), path, &error));
  auto back =
      std::dynamic_pointer_cast<TestRecord>(ZRBKeyedUnarchiver::unarchiveObjectWithFile(path, &error));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->address->zip, 12345);
  std::remove(path.c_str());
  EXPECT_FALSE(ZRBKeyedUnarchiver::unarchiveObjectWithFile(path, &error));
  EXPECT_TRUE(error);
}

}  // namespace
