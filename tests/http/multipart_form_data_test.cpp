#include "http/multipart_form_data.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "http/request_serializer.h"
#include "platform/assert.h"
#include "platform/dispatch.h"
#include "settings/error_domains.h"

namespace {

// A part as the wire should show it: its header lines (without the blank line) and its body.
struct ExpectedPart {
  std::string headers;
  std::string body;
};

// The body built by hand from the wire rules, independently of the code under test.
std::string expectedBody(const std::string& boundary, const std::vector<ExpectedPart>& parts) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    out += (i == 0 ? "" : "\r\n") + std::string("--") + boundary + "\r\n";
    out += parts[i].headers + "\r\n" + parts[i].body;
  }
  if (!parts.empty()) out += "\r\n--" + boundary + "--\r\n";
  return out;
}

std::string fieldHeaders(const std::string& name) {
  return "Content-Disposition: form-data; name=\"" + name + "\"\r\n";
}

std::string fileHeaders(const std::string& name, const std::string& fileName, const std::string& type) {
  return "Content-Disposition: form-data; name=\"" + name + "\"; filename=\"" + fileName +
         "\"\r\nContent-Type: " + type + "\r\n";
}

// Opens the stream and reads it to its end in reads of `chunk` bytes.
std::string readAll(ZRBInputStream& stream, std::size_t chunk, std::vector<long>* counts = nullptr) {
  stream.open();
  std::vector<std::uint8_t> buffer(chunk);
  std::string out;
  for (;;) {
    long n = stream.read(buffer.data(), buffer.size());
    if (counts) counts->push_back(n);
    if (n <= 0) break;
    out.append(reinterpret_cast<const char*>(buffer.data()), static_cast<std::size_t>(n));
  }
  return out;
}

std::string assertionText(const std::function<void()>& call) {
  try {
    call();
  } catch (const ZRBAssertionFailure& failure) {
    return failure.what();
  }
  return "(no assertion)";
}

std::string patterned(std::size_t length) {
  std::string text(length, '\0');
  for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>((i * 31 + 7) % 251);
  return text;
}

class TempDirectory {
 public:
  TempDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "multipart-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempDirectory() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name, const std::string& contents) const {
    std::string path = path_ + "/" + name;
    std::ofstream(path, std::ios::binary) << contents;
    return path;
  }
  std::string path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A body source that remembers where its stream was opened and closed, and can fail mid-way.
class ProbeStream final : public ZRBInputStream {
 public:
  explicit ProbeStream(std::string bytes, bool failAfterFirstRead = false)
      : bytes_(std::move(bytes)), fail_(failAfterFirstRead) {}
  void open() override {
    openedOnMainQueue = ZRBDispatch::isMainQueue();
    ZRBInputStream::open();
  }
  void close() override {
    closedOnMainQueue = ZRBDispatch::isMainQueue();
    ZRBInputStream::close();
  }
  long read(std::uint8_t* buffer, std::size_t maxLength) override {
    if (fail_ && offset_ > 0) {
      setStreamError(ZRBError::make("test.probe", 42));
      return -1;
    }
    std::size_t count = std::min(maxLength, bytes_.size() - offset_);
    std::memcpy(buffer, bytes_.data() + offset_, count);
    offset_ += count;
    if (offset_ == bytes_.size() && !fail_) setStreamStatus(ZRBStreamStatusAtEnd);
    return static_cast<long>(count);
  }
  bool openedOnMainQueue = false;
  bool closedOnMainQueue = false;

 private:
  std::string bytes_;
  bool fail_;
  std::size_t offset_ = 0;
};

ZRBMutableURLRequestPtr postRequest() {
  auto request = ZRBMutableURLRequest::requestWithURL(ZRBURL::URLWithString("http://example.test/upload"));
  request->setHTTPMethod("POST");
  return request;
}

// ---- boundaries, types and exported constants ----

TEST(MultipartBoundaries, FormatsFollowTheWireRules) {
  std::string boundary = KVHSCreateMultipartFormBoundary();
  EXPECT_TRUE(std::regex_match(boundary, std::regex("Boundary\\+[0-9A-F]{16}"))) << boundary;
  EXPECT_NE(boundary, KVHSCreateMultipartFormBoundary());
  EXPECT_EQ(KVHSMultipartFormInitialBoundary("B"), "--B\r\n");
  EXPECT_EQ(KVHSMultipartFormEncapsulationBoundary("B"), "\r\n--B\r\n");
  EXPECT_EQ(KVHSMultipartFormFinalBoundary("B"), "\r\n--B--\r\n");
}

TEST(MultipartBoundaries, ContentTypesAndThrottlingConstants) {
  EXPECT_EQ(KVHSContentTypeForPathExtension("png"), "image/png");
  EXPECT_EQ(KVHSContentTypeForPathExtension("no-such-extension-zz"), "application/octet-stream");
  // The constants are found by their plain C names, as a host looking them up would.
  auto* packet =
      static_cast<const std::uint64_t*>(dlsym(RTLD_DEFAULT, "ZRBHS_kUploadStream3GSuggestedPacketSize"));
  auto* delay = static_cast<const double*>(dlsym(RTLD_DEFAULT, "ZRBHS_kUploadStream3GSuggestedDelay"));
  ASSERT_NE(packet, nullptr);
  ASSERT_NE(delay, nullptr);
  EXPECT_EQ(*packet, 16384u);
  EXPECT_EQ(*delay, 0.2);
}

// ---- reading the body ----

class MultipartBodyTest : public ::testing::Test {
 protected:
  // Four kinds of part: a field, bytes with a file name, a file on disk and a caller's stream.
  // The caller's stream part is optional: such a stream can be read only once, even by a copy.
  std::shared_ptr<ZRBHS_StreamingMultipartFormData> build(bool withStream = true,
                                                          std::shared_ptr<ProbeStream>* probeOut = nullptr) {
    auto formData = std::make_shared<ZRBHS_StreamingMultipartFormData>(postRequest(), ZRBUTF8StringEncoding);
    formData->appendPartWithFormData(ZRBValue::data(std::string_view("héllo")), "greeting");
    formData->appendPartWithFileData(ZRBValue::data(std::string_view(binary_)), "blob", "blob.bin",
                                     "application/x-test");
    ZRBErrorPtr error;
    EXPECT_TRUE(formData->appendPartWithFileURL(ZRBURL::fileURLWithPath(filePath_), "photo", &error))
        << error;
    if (withStream) {
      auto probe = std::make_shared<ProbeStream>("streamed bytes");
      formData->appendPartWithInputStream(probe, "stream", "s.txt", 14, "text/plain");
      if (probeOut) *probeOut = probe;
    }
    return formData;
  }

  std::string expected(const std::string& boundary, bool withStream = true) const {
    std::vector<ExpectedPart> parts = {{fieldHeaders("greeting"), "héllo"},
                                       {fileHeaders("blob", "blob.bin", "application/x-test"), binary_},
                                       {fileHeaders("photo", "photo.png", "image/png"), fileContents_}};
    if (withStream) parts.push_back({fileHeaders("stream", "s.txt", "text/plain"), "streamed bytes"});
    return expectedBody(boundary, parts);
  }

  TempDirectory temp_;
  std::string binary_ = std::string("\0\r\n--\xff", 6) + patterned(300);
  std::string fileContents_ = patterned(5000);
  std::string filePath_ = temp_.file("photo.png", fileContents_);
};

TEST_F(MultipartBodyTest, SmallAndOddReadsDeliverExactlyTheWireBytes) {
  for (std::size_t chunk : {1u, 2u, 7u, 13u, 64u, 1021u, 65536u}) {
    auto formData = build();
    ZRBMutableURLRequestPtr request = formData->requestByFinalizingMultipartFormData();
    std::string body = readAll(*request->HTTPBodyStream(), chunk);
    EXPECT_EQ(body, expected(formData->boundary())) << "reads of " << chunk;
    EXPECT_EQ(formData->bodyStream()->contentLength(), body.size());
    EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::to_string(body.size()));
    EXPECT_EQ(request->valueForHTTPHeaderField("Content-Type"),
              "multipart/form-data; boundary=" + formData->boundary());
  }
}

TEST_F(MultipartBodyTest, OnePartAndTwoPartsCarryTheBoundariesWhereTheyBelong) {
  ZRBHS_StreamingMultipartFormData one(postRequest(), ZRBUTF8StringEncoding);
  one.appendPartWithFormData(ZRBValue::data(std::string_view("v")), "k");
  std::string body = readAll(*one.requestByFinalizingMultipartFormData()->HTTPBodyStream(), 5);
  const std::string& b = one.boundary();
  EXPECT_EQ(body.rfind("--" + b + "\r\n", 0), 0u);
  EXPECT_TRUE(body.ends_with("\r\n--" + b + "--\r\n"));

  ZRBHS_StreamingMultipartFormData two(postRequest(), ZRBUTF8StringEncoding);
  two.appendPartWithFormData(ZRBValue::data(std::string_view("1")), "a");
  two.appendPartWithFormData(ZRBValue::data(std::string_view("2")), "b");
  EXPECT_EQ(readAll(*two.requestByFinalizingMultipartFormData()->HTTPBodyStream(), 3),
            expectedBody(two.boundary(), {{fieldHeaders("a"), "1"}, {fieldHeaders("b"), "2"}}));
  const auto& parts = two.bodyStream()->HTTPBodyParts();
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_TRUE(parts[0]->hasInitialBoundary());
  EXPECT_FALSE(parts[0]->hasFinalBoundary());
  EXPECT_FALSE(parts[1]->hasInitialBoundary());
  EXPECT_TRUE(parts[1]->hasFinalBoundary());
}

TEST_F(MultipartBodyTest, AnEmptyFileLastStillGetsTheClosingInByteSizedReads) {
  // Byte-sized reads end a read exactly where the empty body begins, the case where a source that
  // is already at its end could otherwise be skipped together with the closing boundary.
  std::string empty = temp_.file("empty.txt", "");
  ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
  formData.appendPartWithFormData(ZRBValue::data(std::string_view("v")), "k");
  ASSERT_TRUE(formData.appendPartWithFileURL(ZRBURL::fileURLWithPath(empty), "e", nullptr));
  std::string body = readAll(*formData.requestByFinalizingMultipartFormData()->HTTPBodyStream(), 1);
  EXPECT_EQ(body, expectedBody(formData.boundary(), {{fieldHeaders("k"), "v"},
                                                     {fileHeaders("e", "empty.txt", "text/plain"), ""}}));
  EXPECT_EQ(formData.bodyStream()->contentLength(), body.size());
}

TEST_F(MultipartBodyTest, PhaseChangesRunOnTheMainQueueAndACopyReadsAgain) {
  std::shared_ptr<ProbeStream> probe;
  auto withStream = build(true, &probe);
  ASSERT_FALSE(ZRBDispatch::isMainQueue());
  readAll(*withStream->requestByFinalizingMultipartFormData()->HTTPBodyStream(), 100);
  EXPECT_TRUE(probe->openedOnMainQueue);
  EXPECT_TRUE(probe->closedOnMainQueue);

  // A consumed stream gives nothing more; its copy starts over with fresh sources.
  auto formData = build(false);
  auto request = formData->requestByFinalizingMultipartFormData();
  EXPECT_EQ(readAll(*request->HTTPBodyStream(), 100), expected(formData->boundary(), false));
  EXPECT_EQ(readAll(*request->HTTPBodyStream(), 100), "");
  ZRBInputStreamPtr again = request->HTTPBodyStream()->copyStream();
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(readAll(*again, 77), expected(formData->boundary(), false));
}

TEST_F(MultipartBodyTest, ThrottlingDeliversAtMostOnePacketPerRead) {
  ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
  std::string big = patterned(50000);
  formData.appendPartWithFileData(ZRBValue::data(std::string_view(big)), "big", "big.bin",
                                  "application/x-big");
  formData.appendPartWithFileURL(ZRBURL::fileURLWithPath(filePath_), "photo", nullptr);
  formData.throttleBandwidthWithPacketSize(ZRBHS_kUploadStream3GSuggestedPacketSize, 0);
  auto request = formData.requestByFinalizingMultipartFormData();
  std::vector<long> counts;
  std::string body = readAll(*request->HTTPBodyStream(), 65536, &counts);
  EXPECT_EQ(body, expectedBody(formData.boundary(),
                               {{fileHeaders("big", "big.bin", "application/x-big"), big},
                                {fileHeaders("photo", "photo.png", "image/png"), fileContents_}}));
  for (long count : counts) EXPECT_LE(count, 16384);
  // Packets are filled across part boundaries: only the last non-empty read may be short.
  ASSERT_GE(counts.size(), 3u);
  for (std::size_t i = 0; i + 2 < counts.size(); ++i) EXPECT_EQ(counts[i], 16384) << i;
}

TEST_F(MultipartBodyTest, AFailingBodyStopsTheReadAndReportsTheSourcesError) {
  ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
  formData.appendPartWithInputStream(std::make_shared<ProbeStream>("0123456789", true), "s", "s", 10,
                                     "text/plain");
  auto stream = formData.requestByFinalizingMultipartFormData()->HTTPBodyStream();
  stream->open();
  std::vector<std::uint8_t> buffer(4096);
  // Opening, headers and the source's first bytes are delivered; its next read fails, which ends
  // the read with the count so far rather than a negative one.
  EXPECT_GT(stream->read(buffer.data(), buffer.size()), 0);
  ASSERT_NE(stream->streamError(), nullptr);
  EXPECT_EQ(stream->streamError()->domain(), "test.probe");
  EXPECT_EQ(stream->streamError()->code(), 42);

  // A file that disappears between appending and sending fails the same way, with the file error.
  std::string path = temp_.file("gone.txt", "soon gone");
  ZRBHS_StreamingMultipartFormData withFile(postRequest(), ZRBUTF8StringEncoding);
  ASSERT_TRUE(withFile.appendPartWithFileURL(ZRBURL::fileURLWithPath(path), "f", nullptr));
  std::filesystem::remove(path);
  auto fileStream = withFile.requestByFinalizingMultipartFormData()->HTTPBodyStream();
  readAll(*fileStream, 4096);
  ASSERT_NE(fileStream->streamError(), nullptr);
  EXPECT_EQ(fileStream->streamError()->domain(), ZRBPOSIXErrorDomain);
}

// ---- builder failures ----

TEST_F(MultipartBodyTest, FileURLErrorsAreRecordsAndLeaveTheBuilderUnchanged) {
  ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
  ZRBErrorPtr error;
  EXPECT_FALSE(
      formData.appendPartWithFileURL(ZRBURL::URLWithString("http://example.test/a.png"), "f", &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "com.brontide.error.serialization.request");
  EXPECT_EQ(error->code(), -1000);
  EXPECT_EQ(error->localizedFailureReason(), "Expected URL to be a file URL");

  error.reset();
  EXPECT_FALSE(formData.appendPartWithFileURL(ZRBURL::fileURLWithPath(temp_.path("missing.png"), false), "f",
                                              "missing.png", "image/png", &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), ZRBHS_RequestSerializationErrorDomain);
  EXPECT_EQ(error->code(), -1000);
  EXPECT_EQ(error->localizedFailureReason(), "File URL not reachable.");

  // Without an out-parameter the failure is still reported by the result.
  EXPECT_FALSE(formData.appendPartWithFileURL(ZRBURL::fileURLWithPath(temp_.path("missing.png"), false), "f",
                                              nullptr));
  EXPECT_TRUE(formData.bodyStream()->isEmpty());
}

TEST(MultipartAssertions, MissingArgumentsNameTheArgument) {
  ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
  auto file = ZRBURL::fileURLWithPath("/etc/hostname", false);
  auto data = ZRBValue::data(std::string_view("x"));
  EXPECT_EQ(assertionText([&] { formData.appendPartWithFileURL(nullptr, "n", "f", "t"); }),
            "Invalid parameter not satisfying: fileURL");
  EXPECT_EQ(assertionText([&] { formData.appendPartWithFileURL(file, std::nullopt, "f", "t"); }),
            "Invalid parameter not satisfying: name");
  EXPECT_EQ(assertionText([&] { formData.appendPartWithFileURL(file, "n", std::nullopt, "t"); }),
            "Invalid parameter not satisfying: fileName");
  EXPECT_EQ(assertionText([&] { formData.appendPartWithFileURL(file, "n", "f", std::nullopt); }),
            "Invalid parameter not satisfying: mimeType");
  EXPECT_EQ(assertionText([&] { formData.appendPartWithFileData(data, "n", std::nullopt, "t"); }),
            "Invalid parameter not satisfying: fileName");
  EXPECT_EQ(assertionText([&] { formData.appendPartWithFormData(data, std::nullopt); }),
            "Invalid parameter not satisfying: name");
  EXPECT_EQ(assertionText([&] { formData.appendPartWithFormData(ZRBValue(), "n"); }),
            "Invalid parameter not satisfying: body");
  EXPECT_EQ(assertionText([&] {
              formData.appendPartWithInputStream(std::make_shared<ProbeStream>(""), "n", "f", 0,
                                                 std::nullopt);
            }),
            "Invalid parameter not satisfying: mimeType");
  EXPECT_TRUE(formData.bodyStream()->isEmpty());

  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  EXPECT_EQ(
      assertionText([&] { serializer->multipartFormRequestWithMethod(std::nullopt, "http://h/", {}, {}); }),
      "Invalid parameter not satisfying: method");
  for (const char* method : {"GET", "HEAD"}) {
    EXPECT_EQ(assertionText([&] { serializer->multipartFormRequestWithMethod(method, "http://h/", {}, {}); }),
              "Invalid parameter not satisfying: method != \"GET\" && method != \"HEAD\"");
  }
  EXPECT_EQ(assertionText([&] { serializer->requestWithMultipartFormRequest(postRequest(), file, {}); }),
            "Invalid parameter not satisfying: request.HTTPBodyStream");
  auto withBody =
      serializer->multipartFormRequestWithMethod("POST", "http://h/", ZRBValue::dictionary({{"a", 1}}), {});
  EXPECT_EQ(assertionText([&] {
              serializer->requestWithMultipartFormRequest(withBody, ZRBURL::URLWithString("http://h/f"), {});
            }),
            "Invalid parameter not satisfying: [fileURL isFileURL]");
}

// ---- the serializer's entry points ----

TEST(MultipartRequest, ParametersBecomeFieldsInQueryStringOrder) {
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  serializer->setValueForHTTPHeaderField("yes", "X-Default");
  ZRBValue parameters = ZRBValue::dictionary({
      {"b", ZRBValue::array({1, 2})},
      {"a", ZRBValue::dictionary({{"y", "1 2"}, {"x", ZRBValue::null()}})},
      {"d", ZRBValue::data(std::string_view("\x01\x02", 2))},
  });
  std::string boundary;
  auto request = serializer->multipartFormRequestWithMethod(
      "PUT", "http://example.test/p", parameters, [&](ZRBHS_StreamingMultipartFormData& formData) {
        boundary = formData.boundary();
        formData.appendPartWithFormData(ZRBValue::data(std::string_view("last")), "z");
      });
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(request->HTTPMethod(), "PUT");
  EXPECT_EQ(request->valueForHTTPHeaderField("X-Default"), "yes");
  EXPECT_FALSE(request->HTTPBody());
  std::string body = readAll(*request->HTTPBodyStream(), 11);
  EXPECT_EQ(body, expectedBody(boundary, {{fieldHeaders("a[x]"), ""},
                                          {fieldHeaders("a[y]"), "1 2"},
                                          {fieldHeaders("b[]"), "1"},
                                          {fieldHeaders("b[]"), "2"},
                                          {fieldHeaders("d"), std::string("\x01\x02", 2)},
                                          {fieldHeaders("z"), "last"}}));
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::to_string(body.size()));
}

TEST(MultipartRequest, NoPartsLeavesThePlainRequest) {
  auto request = ZRBHS_HTTPRequestSerializer::serializer()->multipartFormRequestWithMethod(
      "POST", "http://example.test/p", ZRBValue(), {});
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(request->HTTPBodyStream(), nullptr);
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::nullopt);
  EXPECT_TRUE(request->HTTPBody().isData());
  EXPECT_TRUE(request->HTTPBody().bytes().empty());
}

TEST_F(MultipartBodyTest, WritingTheBodyToAFileReportsOnTheMainQueue) {
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  std::string boundary;
  auto request = serializer->multipartFormRequestWithMethod(
      "POST", "http://example.test/p", ZRBValue::dictionary({{"k", "v"}}),
      [&](ZRBHS_StreamingMultipartFormData& formData) {
        boundary = formData.boundary();
        ASSERT_TRUE(formData.appendPartWithFileURL(ZRBURL::fileURLWithPath(filePath_), "photo", nullptr));
      });
  // An older, longer file is replaced, not appended to or partly overwritten.
  std::string target = temp_.file("body.out", patterned(20000));

  auto done = ZRBDispatchSemaphore::make();
  bool onMainQueue = false;
  ZRBErrorPtr reported = ZRBError::make("not.called", 0);
  auto stripped = serializer->requestWithMultipartFormRequest(request, ZRBURL::fileURLWithPath(target, false),
                                                              [&](ZRBErrorPtr error) {
                                                                onMainQueue = ZRBDispatch::isMainQueue();
                                                                reported = std::move(error);
                                                                done->signal();
                                                              });
  ASSERT_NE(stripped, nullptr);
  EXPECT_EQ(stripped->HTTPBodyStream(), nullptr);
  EXPECT_EQ(stripped->valueForHTTPHeaderField("Content-Type"),
            request->valueForHTTPHeaderField("Content-Type"));
  EXPECT_EQ(stripped->valueForHTTPHeaderField("Content-Length"),
            request->valueForHTTPHeaderField("Content-Length"));

  ASSERT_TRUE(done->wait(std::chrono::seconds(60))) << "completion never ran";
  EXPECT_TRUE(onMainQueue);
  EXPECT_EQ(reported, nullptr);
  std::ifstream in(target, std::ios::binary);
  std::string written((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(written,
            expectedBody(boundary, {{fieldHeaders("k"), "v"},
                                    {fileHeaders("photo", "photo.png", "image/png"), fileContents_}}));
  EXPECT_EQ(stripped->valueForHTTPHeaderField("Content-Length"), std::to_string(written.size()));
}

TEST_F(MultipartBodyTest, WritingReportsAFailingBodyToTheCompletion) {
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  auto request = serializer->multipartFormRequestWithMethod(
      "POST", "http://example.test/p", ZRBValue(), [&](ZRBHS_StreamingMultipartFormData& formData) {
        formData.appendPartWithInputStream(std::make_shared<ProbeStream>(patterned(3000), true), "s", "s",
                                           3000, "application/octet-stream");
      });
  auto done = ZRBDispatchSemaphore::make();
  ZRBErrorPtr reported;
  serializer->requestWithMultipartFormRequest(request, ZRBURL::fileURLWithPath(temp_.path("fail.out"), false),
                                              [&](ZRBErrorPtr error) {
                                                reported = std::move(error);
                                                done->signal();
                                              });
  ASSERT_TRUE(done->wait(std::chrono::seconds(60))) << "completion never ran";
  ASSERT_NE(reported, nullptr);
  EXPECT_EQ(reported->domain(), "test.probe");
}

}  // namespace
