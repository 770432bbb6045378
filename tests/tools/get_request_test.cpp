// The requests `orvel get` builds from its options: where -d fields go, --json and -F bodies,
// authorization and -H fields.
#include "orvel/get_request.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "http/multipart_body_stream.h"
#include "platform/foundation/crypto.h"
#include "platform/foundation/json_serialization.h"
#include "platform/foundation/url.h"
#include "platform/runtime/stream.h"
#include "request/network_agent.h"
#include "support/test_pki.h"

namespace {

// What `orvel get WORDS` sends: the URL request the network agent makes for the request object
// (its task is made, never resumed), or the one built for the session manager.
struct Sent {
  ZRBURLRequestPtr request;
  bool viaManager = false;
};

ZRBRQ_NetworkAgent& agent() {
  static const ZRBRQ_NetworkAgentPtr agent = ZRBRQ_NetworkAgent::init();
  return *agent;
}

Sent build(const std::vector<std::string_view>& words) {
  std::string error;
  auto options = orvelParseGetArguments(OrvelArguments(words), error);
  EXPECT_TRUE(options) << error;
  auto request = options ? OrvelGetRequest::make(*options, error) : nullptr;
  EXPECT_TRUE(request) << error;
  if (!request) return {};
  if (request->needsSessionManager()) {
    Sent sent{request->sessionRequest(agent(), error), true};
    EXPECT_TRUE(sent.request) << error;
    return sent;
  }
  ZRBErrorPtr taskError;
  auto task = agent().sessionTaskForRequest(request, &taskError);
  EXPECT_TRUE(task) << (taskError ? taskError->localizedDescription() : "");
  return {task ? task->originalRequest() : nullptr, false};
}

std::string buildError(const std::vector<std::string_view>& words) {
  std::string error;
  auto options = orvelParseGetArguments(OrvelArguments(words), error);
  EXPECT_TRUE(options) << error;
  if (!options) return error;
  auto request = OrvelGetRequest::make(*options, error);
  EXPECT_FALSE(request && request->sessionRequest(agent(), error));
  return error;
}

std::string body(const ZRBURLRequestPtr& request) {
  auto bytes = request->HTTPBody().bytes();
  return std::string(bytes.begin(), bytes.end());
}

std::string readAll(const ZRBInputStreamPtr& stream) {
  std::string text;
  stream->open();
  std::uint8_t buffer[4096];
  for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;)
    text.append(reinterpret_cast<char*>(buffer), n);
  stream->close();
  return text;
}

TEST(OrvelGetRequest, DataFieldsGoIntoTheQueryOrAFormBodyByMethod) {
  struct Case {
    std::vector<std::string_view> words;
    std::string method, url, formBody;
    bool viaManager;
  };
  const Case cases[] = {
      // A body makes a POST, as with curl; another method keeps it.
      {{"-d", "b=2", "-d", "a=x y", "http://h/p"}, "POST", "http://h/p", "a=x%20y&b=2", false},
      {{"-XPUT", "-d", "a=1", "http://h/p"}, "PUT", "http://h/p", "a=1", false},
      // GET (with -G) and HEAD put them into the query, after an existing one; DELETE, by the
      // request layer's rule, into the body.
      {{"-G", "-d", "a=1", "http://h/p?q=0"}, "GET", "http://h/p?q=0&a=1", "", false},
      {{"-XHEAD", "-d", "a=1", "http://h/p"}, "HEAD", "http://h/p?a=1", "", false},
      {{"-XDELETE", "-d", "a=1", "http://h/p"}, "DELETE", "http://h/p", "a=1", false},
      // -G moves any method's fields into the query, which the session manager's request does.
      {{"-G", "-XPOST", "-d", "a=1", "http://h/p"}, "POST", "http://h/p?a=1", "", true},
      {{"-G", "-XDELETE", "-d", "a=1", "http://h/p"}, "DELETE", "http://h/p?a=1", "", true},
      // So does a method the request layer does not know.
      {{"-XPROPFIND", "-d", "a=1", "http://h/p"}, "PROPFIND", "http://h/p", "a=1", true},
      // A repeated key repeats; a bare key goes without "=".
      {{"-G", "-d", "t=2", "-d", "t=1", "-d", "flag", "http://h/"},
       "GET",
       "http://h/?flag&t=1&t=2",
       "",
       false},
  };
  for (const auto& [words, method, url, formBody, viaManager] : cases) {
    SCOPED_TRACE(method + " " + url);
    auto built = build(words);
    ASSERT_TRUE(built.request);
    EXPECT_EQ(built.viaManager, viaManager);
    EXPECT_EQ(built.request->HTTPMethod(), method);
    EXPECT_EQ(built.request->URL()->absoluteString(), url);
    EXPECT_EQ(body(built.request), formBody);
    if (!formBody.empty()) {
      EXPECT_EQ(built.request->valueForHTTPHeaderField("Content-Type"), "application/x-www-form-urlencoded");
    }
  }
}

TEST(OrvelGetRequest, JSONBodyIsParsedAndWrittenByTheJSONSerializer) {
  auto built = build({"--json", R"({"name": "ann", "n": [1, 2]})", "http://h/api"});
  ASSERT_TRUE(built.request);
  EXPECT_EQ(built.request->HTTPMethod(), "POST");
  EXPECT_EQ(built.request->valueForHTTPHeaderField("Content-Type"), "application/json");
  EXPECT_EQ(built.request->valueForHTTPHeaderField("Accept"), "application/json");
  EXPECT_EQ(ZRBJSONSerialization::JSONObjectWithData(body(built.request)),
            ZRBValue::dictionary({{"name", ZRBValue("ann")}, {"n", ZRBValue::array({1, 2})}}));

  // -H wins over what the serializer set.
  built = build({"--json", "[1]", "-H", "Content-Type: application/vnd.x+json", "http://h/api"});
  EXPECT_EQ(built.request->valueForHTTPHeaderField("Content-Type"), "application/vnd.x+json");

  auto error = buildError({"--json", "{\"a\": }", "http://h/api"});
  EXPECT_NE(error.find("--json"), std::string::npos) << error;
  EXPECT_NE(error.find("line 1"), std::string::npos) << error;
}

TEST(OrvelGetRequest, UserAndHeaderFieldsOverrideAndRemoveDefaults) {
  auto built = build(
      {"-u", "ann:s3cr:et", "-H", "User-Agent:", "-H", "X-Trace: 1", "-H", "Accept-Language;", "http://h/"});
  ASSERT_TRUE(built.request);
  EXPECT_TRUE(built.viaManager) << "the request layer cannot remove a field";
  // Only the first colon separates the user from the password.
  EXPECT_EQ(built.request->valueForHTTPHeaderField("Authorization"),
            "Basic " + ZRBBase64Encode("ann:s3cr:et"));
  EXPECT_FALSE(built.request->valueForHTTPHeaderField("User-Agent"));
  EXPECT_EQ(built.request->valueForHTTPHeaderField("X-Trace"), "1");
  EXPECT_EQ(built.request->valueForHTTPHeaderField("Accept-Language"), "");

  built = build({"-u", "bob", "-H", "X-Trace:", "-H", "X-Trace: 2", "--timeout", "2.5", "http://h/"});
  EXPECT_FALSE(built.viaManager) << "a later -H sets the field again";
  EXPECT_EQ(built.request->valueForHTTPHeaderField("X-Trace"), "2");
  EXPECT_EQ(built.request->timeoutInterval(), 2.5);
  EXPECT_EQ(built.request->valueForHTTPHeaderField("Authorization"), "Basic " + ZRBBase64Encode("bob:"));
  // Without -H the serializer's defaults are sent.
  EXPECT_TRUE(built.request->valueForHTTPHeaderField("User-Agent"));
}

TEST(OrvelGetRequest, FormFieldsAndFilesStreamAsMultipart) {
  std::filesystem::path directory = ZRBTestPKI::makeTemporaryDirectory();
  auto file = directory / "notes.txt";
  std::ofstream(file) << "file contents\n";

  auto typed = "raw=@" + file.string() + ";type=application/x-notes";
  auto built = build({"-F", "title=hello", "-F", typed, "http://h/upload"});
  ASSERT_TRUE(built.request);
  EXPECT_TRUE(built.viaManager);
  EXPECT_EQ(built.request->HTTPMethod(), "POST");
  auto text = readAll(built.request->HTTPBodyStream());
  EXPECT_NE(text.find("name=\"title\"\r\n\r\nhello\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("name=\"raw\"; filename=\"notes.txt\"\r\nContent-Type: application/x-notes\r\n\r\n"
                      "file contents\n"),
            std::string::npos)
      << text;
  // --throttle: the library's suggested packet size and pause.
  auto throttled = build({"-F", "title=hello", "--throttle", "http://h/upload"});
  auto stream = std::dynamic_pointer_cast<ZRBHS_MultipartBodyStream>(throttled.request->HTTPBodyStream());
  ASSERT_TRUE(stream);
  EXPECT_EQ(stream->numberOfBytesInPacket(), ZRBHS_kUploadStream3GSuggestedPacketSize);
  EXPECT_EQ(stream->delay(), ZRBHS_kUploadStream3GSuggestedDelay);

  auto missing = "doc=@" + (directory / "missing.txt").string();
  EXPECT_NE(buildError({"-F", missing, "http://h/upload"}).find("missing.txt"), std::string::npos);
  EXPECT_NE(buildError({"-XGET", "-F", "a=b", "http://h/upload"}).find("GET cannot carry"),
            std::string::npos);
  std::filesystem::remove_all(directory);
}

TEST(OrvelGetRequest, URLsWithoutSchemeOrHostAreRefused) {
  for (std::string_view url : {"localhost:8080/x", "not a url", "http://"}) {
    auto error = buildError({url});
    EXPECT_NE(error.find("is not a URL"), std::string::npos) << url << ": " << error;
  }
}

}  // namespace
