// Multipart bodies: exact wire bytes for any read size, boundary placement, throttling, failing
// sources, builder errors and assertions, the serializer's multipart entry points, and a body sent
// again after a redirect.
#include "http/multipart_form_data.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "http/request_serializer.h"
#include "platform/foundation/assert.h"
#include "platform/foundation/json_serialization.h"
#include "platform/net/url_session.h"
#include "platform/runtime/dispatch.h"
#include "settings/error_domains.h"
#include "support/recording_delegate.h"
#include "support/temporary_directory.h"
#include "support/test_server.h"

namespace {

// A part as the wire should show it: its header lines (without the blank line) and its body.
struct ExpectedPart {
  std::string headers;
  std::string body;
};

// The body built by hand from the wire rules, independently of the code under test.
std::string expectedBody(const std::string& boundary, const std::vector<ExpectedPart>& parts) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i)
    out += (i == 0 ? "--" : "\r\n--") + boundary + "\r\n" + parts[i].headers + "\r\n" + parts[i].body;
  return parts.empty() ? out : out + "\r\n--" + boundary + "--\r\n";
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
    if (n <= 0) return out;
    out.append(reinterpret_cast<const char*>(buffer.data()), static_cast<std::size_t>(n));
  }
}

// A caller's body stream, readable once and with no way to copy it, that notes whether the part
// opened and closed it on the main queue.
class ProbeStream final : public ZRBInputStream {
 public:
  explicit ProbeStream(std::string bytes = "streamed bytes") : bytes_(std::move(bytes)) {}
  void open() override {
    openedOnMainQueue = ZRBDispatch::isMainQueue();
    ZRBInputStream::open();
  }
  void close() override {
    closedOnMainQueue = ZRBDispatch::isMainQueue();
    ZRBInputStream::close();
  }
  long read(std::uint8_t* buffer, std::size_t maxLength) override {
    std::size_t count = std::min(maxLength, bytes_.size() - offset_);
    std::memcpy(buffer, bytes_.data() + offset_, count);
    if ((offset_ += count) == bytes_.size()) setStreamStatus(ZRBStreamStatusAtEnd);
    return static_cast<long>(count);
  }
  bool openedOnMainQueue = false;
  bool closedOnMainQueue = false;

 private:
  std::string bytes_;
  std::size_t offset_ = 0;
};

ZRBMutableURLRequestPtr postRequest() {
  auto request = ZRBMutableURLRequest::requestWithURL(ZRBURL::URLWithString("http://example.test/upload"));
  request->setHTTPMethod("POST");
  return request;
}

ZRBValue bytes(std::string_view text) { return ZRBValue::data(text); }

class MultipartBodyTest : public ::testing::Test {
 protected:
  std::string file(const std::string& name, const std::string& contents) const {
    return directory_.write(name, contents);
  }

  // Four kinds of part: a field, bytes with a file name, a file on disk and a caller's stream.
  // The caller's stream part is optional: such a stream can be read only once, even by a copy.
  std::shared_ptr<ZRBHS_StreamingMultipartFormData> build(std::shared_ptr<ProbeStream> probe = nullptr) {
    auto formData = std::make_shared<ZRBHS_StreamingMultipartFormData>(postRequest(), ZRBUTF8StringEncoding);
    formData->appendPartWithFormData(bytes("héllo"), "greeting");
    formData->appendPartWithFileData(bytes(binary_), "blob", "blob.bin", "application/x-test");
    EXPECT_TRUE(formData->appendPartWithFileURL(ZRBURL::fileURLWithPath(photo_), "photo", nullptr));
    if (probe) formData->appendPartWithInputStream(probe, "stream", "s.txt", 14, "text/plain");
    return formData;
  }

  std::string expected(const std::string& boundary, bool withStream) const {
    std::vector<ExpectedPart> parts = {{fieldHeaders("greeting"), "héllo"},
                                       {fileHeaders("blob", "blob.bin", "application/x-test"), binary_},
                                       {fileHeaders("photo", "photo.png", "image/png"), photoBytes_}};
    if (withStream) parts.push_back({fileHeaders("stream", "s.txt", "text/plain"), "streamed bytes"});
    return expectedBody(boundary, parts);
  }

  ZRBTestTemporaryDirectory directory_;
  // Bytes that look like a delimiter inside a body must pass through untouched.
  std::string binary_ = std::string("\0\r\n--\xff", 6) + ZRBTestPatternBytes(0, 300);
  std::string photoBytes_ = ZRBTestPatternBytes(0, 5000);
  std::string photo_ = file("photo.png", photoBytes_);
};

TEST_F(MultipartBodyTest, AnyReadSizeDeliversExactlyTheWireBytes) {
  ASSERT_FALSE(ZRBDispatch::isMainQueue());
  for (std::size_t chunk : {1u, 2u, 7u, 13u, 64u, 1021u, 65536u}) {
    auto probe = std::make_shared<ProbeStream>();
    auto formData = build(probe);
    ZRBMutableURLRequestPtr request = formData->requestByFinalizingMultipartFormData();
    std::string body = readAll(*request->HTTPBodyStream(), chunk);
    EXPECT_EQ(body, expected(formData->boundary(), true)) << "reads of " << chunk;
    EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::to_string(body.size()));
    EXPECT_EQ(request->valueForHTTPHeaderField("Content-Type"),
              "multipart/form-data; boundary=" + formData->boundary());
    EXPECT_TRUE(probe->openedOnMainQueue && probe->closedOnMainQueue);
  }
  EXPECT_TRUE(std::regex_match(build()->boundary(), std::regex("Boundary\\+[0-9A-F]{16}")));
  EXPECT_NE(build()->boundary(), build()->boundary());

  // A consumed stream gives nothing more; its copy starts over with fresh sources.
  auto formData = build();
  auto request = formData->requestByFinalizingMultipartFormData();
  EXPECT_EQ(readAll(*request->HTTPBodyStream(), 100), expected(formData->boundary(), false));
  EXPECT_EQ(readAll(*request->HTTPBodyStream(), 100), "");
  ZRBInputStreamPtr again = request->HTTPBodyStream()->copyStream();
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(readAll(*again, 77), expected(formData->boundary(), false));
}

TEST_F(MultipartBodyTest, FirstAndLastPartsCarryTheOuterBoundariesEvenWhenEmpty) {
  // Byte-sized reads end a read exactly where an empty body begins, the case where a source that
  // is already at its end could otherwise be skipped together with the closing boundary.
  std::string empty = file("empty.txt", "");
  const ExpectedPart field{fieldHeaders("k"), "v"},
      emptyFile{fileHeaders("e", "empty.txt", "text/plain"), ""};
  for (const auto& parts : {std::vector{field}, std::vector{field, emptyFile}, std::vector{emptyFile}}) {
    ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
    for (const auto& part : parts) {
      if (part.body.empty())
        formData.appendPartWithFileURL(ZRBURL::fileURLWithPath(empty), "e", nullptr);
      else
        formData.appendPartWithFormData(bytes("v"), "k");
    }
    auto request = formData.requestByFinalizingMultipartFormData();
    std::string body = readAll(*request->HTTPBodyStream(), 1);
    EXPECT_EQ(body, expectedBody(formData.boundary(), parts)) << parts.size() << " parts";
    EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::to_string(body.size()));
  }
}

TEST_F(MultipartBodyTest, ThrottlingDeliversAtMostOnePacketPerReadAndPausesAfterEach) {
  ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
  std::string big = ZRBTestPatternBytes(0, 50000);
  formData.appendPartWithFileData(bytes(big), "big", "big.bin", "application/x-big");
  formData.appendPartWithFileURL(ZRBURL::fileURLWithPath(photo_), "photo", nullptr);
  constexpr double kDelay = 0.02;
  formData.throttleBandwidthWithPacketSize(16384, kDelay);
  auto request = formData.requestByFinalizingMultipartFormData();
  std::vector<long> counts;
  auto started = std::chrono::steady_clock::now();
  std::string body = readAll(*request->HTTPBodyStream(), 65536, &counts);
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  EXPECT_EQ(body, expectedBody(formData.boundary(),
                               {{fileHeaders("big", "big.bin", "application/x-big"), big},
                                {fileHeaders("photo", "photo.png", "image/png"), photoBytes_}}));
  // Packets are filled across part boundaries: only the last non-empty read may be short.
  ASSERT_GE(counts.size(), 3u);
  for (std::size_t i = 0; i + 1 < counts.size(); ++i) EXPECT_LE(counts[i], 16384) << i;
  for (std::size_t i = 0; i + 2 < counts.size(); ++i) EXPECT_EQ(counts[i], 16384) << i;
  EXPECT_GE(elapsed, kDelay * double(counts.size() - 1));
}

TEST_F(MultipartBodyTest, BadFilesAreErrorRecordsWhenAppendedAndStreamErrorsWhenRead) {
  ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
  auto missing = ZRBURL::fileURLWithPath(directory_ / "missing.png", false);
  std::pair<ZRBURLPtr, std::string> cases[] = {
      {ZRBURL::URLWithString("http://example.test/a.png"), "Expected URL to be a file URL"},
      {missing, "File URL not reachable."},
  };
  for (const auto& [url, reason] : cases) {
    ZRBErrorPtr error;
    EXPECT_FALSE(formData.appendPartWithFileURL(url, "f", "a.png", "image/png", &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), ZRBHS_RequestSerializationErrorDomain);
    EXPECT_EQ(error->code(), -1000);
    EXPECT_EQ(error->localizedFailureReason(), reason);
  }
  EXPECT_FALSE(formData.appendPartWithFileURL(missing, "f", nullptr));
  EXPECT_TRUE(formData.bodyStream()->isEmpty());

  // A file that disappears between appending and sending ends the read with the count of the parts
  // before it (not a negative one) and leaves the file's error on the stream.
  std::string path = file("gone.txt", "soon gone");
  formData.appendPartWithFormData(bytes("v"), "k");
  ASSERT_TRUE(formData.appendPartWithFileURL(ZRBURL::fileURLWithPath(path), "f", nullptr));
  std::filesystem::remove(path);
  auto stream = formData.requestByFinalizingMultipartFormData()->HTTPBodyStream();
  stream->open();
  std::vector<std::uint8_t> buffer(4096);
  EXPECT_GT(stream->read(buffer.data(), buffer.size()), 0);
  ASSERT_NE(stream->streamError(), nullptr);
  EXPECT_EQ(stream->streamError()->domain(), ZRBPOSIXErrorDomain);
  // Byte-sized reads fill a read exactly up to the body, where the failed file must not be skipped.
  auto again = stream->copyStream();
  readAll(*again, 1);
  EXPECT_NE(again->streamError(), nullptr);
}

TEST(MultipartAssertions, MisuseIsAnAssertionFailureNamingTheCondition) {
  ZRBHS_StreamingMultipartFormData formData(postRequest(), ZRBUTF8StringEncoding);
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  auto multipart =
      serializer->multipartFormRequestWithMethod("POST", "http://h/", ZRBValue::dictionary({{"a", 1}}), {});
  const std::string notGetOrHead = "method != \"GET\" && method != \"HEAD\"";
  std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { formData.appendPartWithFileURL(nullptr, "n", "f", "t"); }, "fileURL"},
      {[&] { formData.appendPartWithFormData(bytes("x"), std::nullopt); }, "name"},
      {[&] { formData.appendPartWithFormData(ZRBValue(), "n"); }, "body"},
      {[&] { formData.appendPartWithInputStream(nullptr, "n", "f", 0, std::nullopt); }, "mimeType"},
      {[&] { serializer->requestWithMethod("GET", "http://h/a b", ZRBValue()); }, "url"},
      {[&] { serializer->requestBySerializingRequest(nullptr, ZRBValue()); }, "request"},
      {[&] { serializer->multipartFormRequestWithMethod("GET", "http://h/", {}, {}); }, notGetOrHead},
      {[&] { serializer->multipartFormRequestWithMethod("HEAD", "http://h/", {}, {}); }, notGetOrHead},
      {[&] { serializer->requestWithMultipartFormRequest(postRequest(), {}, {}); }, "request.HTTPBodyStream"},
      {[&] {
         serializer->requestWithMultipartFormRequest(multipart, ZRBURL::URLWithString("http://h/"), {});
       },
       "[fileURL isFileURL]"},
  };
  for (const auto& [call, condition] : cases)
    EXPECT_THAT(
        call, testing::ThrowsMessage<ZRBAssertionFailure>("Invalid parameter not satisfying: " + condition));
  EXPECT_TRUE(formData.bodyStream()->isEmpty());
}

TEST(MultipartRequest, ParametersBecomeFieldsInQueryStringOrder) {
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  serializer->setValueForHTTPHeaderField("yes", "X-Default");
  // Names are not escaped, the null object is an empty field, data goes as it is.
  ZRBValue parameters =
      ZRBValue::dictionary({{"n", ZRBValue::array({1.5})},
                            {"a", ZRBValue::dictionary({{"y", "1 2"}, {"x", ZRBValue::null()}})},
                            {"d", bytes(std::string_view("\x01\x02", 2))}});
  std::string boundary;
  auto request = serializer->multipartFormRequestWithMethod(
      "PUT", "http://example.test/p", parameters, [&](ZRBHS_StreamingMultipartFormData& formData) {
        boundary = formData.boundary();
        formData.appendPartWithFormData(bytes("last"), "z");
      });
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(request->HTTPMethod(), "PUT");
  EXPECT_EQ(request->valueForHTTPHeaderField("X-Default"), "yes");
  EXPECT_FALSE(request->HTTPBody());
  std::string body = readAll(*request->HTTPBodyStream(), 11);
  EXPECT_EQ(body, expectedBody(boundary, {{fieldHeaders("a[x]"), ""},
                                          {fieldHeaders("a[y]"), "1 2"},
                                          {fieldHeaders("d"), std::string("\x01\x02", 2)},
                                          {fieldHeaders("n[]"), "1.5"},
                                          {fieldHeaders("z"), "last"}}));
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), std::to_string(body.size()));

  // No part at all leaves the plain request with its empty form body.
  auto plain = serializer->multipartFormRequestWithMethod("POST", "http://example.test/p", ZRBValue(), {});
  ASSERT_NE(plain, nullptr);
  EXPECT_EQ(plain->HTTPBodyStream(), nullptr);
  EXPECT_EQ(plain->valueForHTTPHeaderField("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(plain->valueForHTTPHeaderField("Content-Length"), std::nullopt);
  EXPECT_TRUE(plain->HTTPBody().isData());
}

TEST_F(MultipartBodyTest, WritingTheBodyToAFileReportsOnTheMainQueue) {
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  // Writes the request's body to `target` and returns what the completion was given.
  auto writeOut = [&](const ZRBURLRequestPtr& request, const std::string& target) {
    auto done = ZRBDispatchSemaphore::make();
    bool onMainQueue = false;
    ZRBErrorPtr reported = ZRBError::make("not.called", 0);
    auto stripped = serializer->requestWithMultipartFormRequest(
        request, ZRBURL::fileURLWithPath(target, false), [&](ZRBErrorPtr error) {
          onMainQueue = ZRBDispatch::isMainQueue();
          reported = std::move(error);
          done->signal();
        });
    EXPECT_EQ(stripped->HTTPBodyStream(), nullptr);
    EXPECT_TRUE(done->wait(std::chrono::seconds(60))) << "completion never ran";
    EXPECT_TRUE(onMainQueue);
    return reported;
  };

  // An older, longer file is replaced, not appended to or partly overwritten.
  auto formData = build();
  std::string target = file("body.out", ZRBTestPatternBytes(0, 20000));
  EXPECT_EQ(writeOut(formData->requestByFinalizingMultipartFormData(), target), nullptr);
  std::ifstream in(target, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), expected(formData->boundary(), false));

  // A body that cannot be read stops the copy, and its error reaches the completion.
  std::string path = file("gone.txt", ZRBTestPatternBytes(0, 3000));
  ZRBHS_StreamingMultipartFormData failing(postRequest(), ZRBUTF8StringEncoding);
  ASSERT_TRUE(failing.appendPartWithFileURL(ZRBURL::fileURLWithPath(path), "f", nullptr));
  std::filesystem::remove(path);
  ZRBErrorPtr error = writeOut(failing.requestByFinalizingMultipartFormData(), file("fail.out", ""));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), ZRBPOSIXErrorDomain);

  // A target that cannot be opened (its folder is missing) is an error too, not a quiet success.
  std::string missing = file("x", "") + ".d/none/body.out";
  error = writeOut(build()->requestByFinalizingMultipartFormData(), missing);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), ZRBPOSIXErrorDomain);
  EXPECT_EQ(error->code(), ENOENT);
}

// Through a URL session: a body that must be sent again is copied part by part, or fails at once
// when a part cannot be read twice.
TEST(MultipartUploadTest, BodySentAgainAfterARedirectIsCopiedOrFailsAtOnce) {
  ZRBTestServer server;
  server.start();
  server.echo("/echo");
  server.redirect("/moved", "/echo/there", 307);
  auto delegate = std::make_shared<RecordingDelegate>();
  auto session = ZRBURLSession::sessionWithConfiguration(nullptr, delegate, nullptr);
  auto serializer = ZRBHS_HTTPRequestSerializer::serializer();
  const std::string payload = ZRBTestPatternBytes(0, 50000);

  int completions = 0;
  for (bool callersOwnStream : {false, true}) {
    auto request = serializer->multipartFormRequestWithMethod(
        "POST", server.url("/moved"), ZRBValue::dictionary({{"a", "1"}}),
        [&](ZRBHS_StreamingMultipartFormData& form) {
          form.appendPartWithFileData(ZRBValue::data(payload), "d", "d.bin", "application/octet-stream");
          ZRBInputStreamPtr stream = callersOwnStream
                                         ? std::make_shared<ProbeStream>(payload)
                                         : ZRBInputStream::inputStreamWithData(ZRBValue::data(payload));
          form.appendPartWithInputStream(stream, "s", "s.bin", payload.size(), "application/octet-stream");
        });
    ASSERT_NE(request, nullptr);
    request->setTimeoutInterval(30);  // a body that hangs instead of failing ends here
    std::string sent;
    if (!callersOwnStream) {
      auto copy = request->HTTPBodyStream()->copyStream();
      copy->open();
      std::uint8_t buffer[8192];
      for (long n; (n = copy->read(buffer, sizeof buffer)) > 0;)
        sent.append(reinterpret_cast<char*>(buffer), n);
    }
    auto task = session->uploadTaskWithStreamedRequest(request);
    task->resume();
    ASSERT_TRUE(delegate->waitForCompletions(++completions, std::chrono::seconds(60)));
    auto completion = delegate->completion(task);
    SCOPED_TRACE(callersOwnStream ? "caller's own stream" : "copyable parts");
    if (callersOwnStream) {
      ASSERT_NE(completion.error, nullptr);
      EXPECT_EQ(completion.error->code(), ZRBURLErrorRequestBodyStreamExhausted);
    } else {
      ASSERT_EQ(completion.error, nullptr) << completion.error->description();
      auto echoed = ZRBJSONSerialization::JSONObjectWithData(std::string_view(completion.body));
      EXPECT_EQ(echoed["method"].description(), "POST");
      EXPECT_EQ(echoed["bodySHA256"].description(), ZRBTestSHA256Hex(sent));
    }
  }
  session->invalidateAndCancel();
  delegate->waitForInvalidation();
}

}  // namespace
