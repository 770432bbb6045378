// `orvel get` end to end: the built program against the loopback test server, checked by what it
// prints, the files it leaves and what the server received.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

struct TemporaryDirectory {
  std::filesystem::path path = ZRBTestPKI::makeTemporaryDirectory();
  ~TemporaryDirectory() { std::filesystem::remove_all(path); }
};

struct Run {
  std::string out;
  std::string err;
  int status = -1;
};

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Runs `orvel get ARGUMENTS...` with standard error into a file.
Run orvelGet(const std::vector<std::string>& arguments) {
  TemporaryDirectory directory;
  auto errors = directory.path / "stderr";
  std::string command = ORVEL_PROGRAM_PATH " get";
  for (const auto& argument : arguments) {
    std::string quoted;
    for (char c : argument) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    command += " '" + quoted + "'";
  }
  command += " 2>'" + errors.string() + "'";
  Run run;
  std::FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, n);
  int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.err = readFile(errors);
  return run;
}

class OrvelGetHTTPS : public testing::Test {
 protected:
  static const ZRBTestChain& chain() { return ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256); }

  void SetUp() override {
    files_ = ZRBTestPKI::writeServerFiles(chain(), directory_.path);
    server_.start();
  }

  std::string root() const { return files_.root.string(); }

  TemporaryDirectory directory_;
  ZRBTestServerFiles files_;
  ZRBTestServer server_{ZRBTestServerOptions{.tls = chain()}};
};

TEST_F(OrvelGetHTTPS, PrintsHeadAndBodyWhenTheCertificateChainsToTheGivenRoot) {
  ZRBTestResponse answer = ZRBTestResponse::json(200, R"({"ok":true})");
  answer.headers.add("X-Served-By", "test");
  server_.respond("GET", "/status.json", answer);

  auto run = orvelGet({"-i", "--cacert", root(), server_.url("/status.json")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(run.out.starts_with("HTTP/1.1 200 OK\r\n")) << run.out;
  EXPECT_NE(run.out.find("\r\nX-Served-By: test\r\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\r\nContent-Length: 11\r\n"), std::string::npos) << run.out;
  EXPECT_TRUE(run.out.ends_with("\r\n\r\n{\"ok\":true}")) << run.out;

  run = orvelGet({"--cacert", root(), "-H", "X-Trace: abc", server_.url("/status.json")});
  EXPECT_EQ(run.out, "{\"ok\":true}");
  ASSERT_EQ(server_.requestCount(), 2u);
  EXPECT_EQ(server_.requests()[1].header("X-Trace"), "abc");
}

TEST_F(OrvelGetHTTPS, UntrustedServersFailUnlessInsecure) {
  server_.respond("GET", "/x", ZRBTestResponse::text(200, "body"));
  // Another PKI's root does not vouch for this server.
  TemporaryDirectory other;
  auto otherRoot = other.path / "other-root.pem";
  writeFile(otherRoot, ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP384).rootPEM());

  auto run = orvelGet({"--cacert", otherRoot.string(), server_.url("/x")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("orvel: the certificate of localhost does not chain to a certificate in"),
            std::string::npos)
      << run.err;

  // Without --cacert the system's anchors decide, and they do not know the test root.
  run = orvelGet({server_.url("/x")});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("orvel: the certificate of localhost is not trusted (ZRBURLErrorDomain -12"),
            std::string::npos)
      << run.err;

  run = orvelGet({"-k", server_.url("/x")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "body");
}

TEST_F(OrvelGetHTTPS, DownloadsIntoAFileAndFailsOnHTTPErrorsOnlyWithF) {
  constexpr std::uint64_t kSize = 3 << 20;
  server_.respond("GET", "/big.bin", ZRBTestResponse::generated(kSize, 7));
  server_.respond("GET", "/missing", ZRBTestResponse::text(404, "no such thing"));
  auto output = directory_.path / "big.bin";

  auto run = orvelGet({"--cacert", root(), "-o", output.string(), server_.url("/big.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");  // no progress bar when standard error is not a terminal
  EXPECT_EQ(ZRBTestSHA256Hex(readFile(output)), ZRBTestPatternSHA256(0, kSize, 7));

  run = orvelGet({"--cacert", root(), "-f", server_.url("/missing")});
  EXPECT_EQ(run.status, 22);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("the requested URL returned error: 404 Not Found"), std::string::npos) << run.err;
  // -f with -o leaves an existing file alone.
  run = orvelGet({"--cacert", root(), "-f", "-o", output.string(), server_.url("/missing")});
  EXPECT_EQ(run.status, 22);
  EXPECT_EQ(std::filesystem::file_size(output), kSize);

  run = orvelGet({"--cacert", root(), server_.url("/missing")});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "no such thing");
}

TEST(OrvelGet, ConnectionFailureIsReportedWithEndpointAndCode) {
  ZRBTestServer server;
  server.start();
  auto port = server.port();
  server.stop();
  auto url = "http://127.0.0.1:" + std::to_string(port) + "/";
  auto run = orvelGet({url});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "orvel: could not connect to 127.0.0.1:" + std::to_string(port) + " (ZRBURLErrorDomain -1004)\n");

  run = orvelGet({"-o"});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("usage: orvel get"), std::string::npos);
}

TEST(OrvelGet, SendsFormFieldsJSONMultipartAndAuthorization) {
  ZRBTestServer server;
  server.uploadSink("/sink", {.keepLimit = 1 << 20});
  server.start();
  TemporaryDirectory directory;
  auto file = directory.path / "photo.jpg";
  writeFile(file, std::string(200000, '\xff'));

  auto run = orvelGet({"-d", "name=Ann Lee", "-d", "n=1", "-u", "ann:pw", server.url("/sink")});
  EXPECT_EQ(run.status, 0) << run.err;
  run = orvelGet({"--json", R"({"a":[1,2]})", server.url("/sink")});
  EXPECT_EQ(run.status, 0) << run.err;
  run = orvelGet({"-F", "title=Holiday", "-F", "photo=@" + file.string(), server.url("/sink")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("\"bytes\""), std::string::npos) << run.out;

  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].body, "n=1&name=Ann%20Lee");
  EXPECT_EQ(requests[0].header("Authorization"), "Basic YW5uOnB3");
  EXPECT_EQ(requests[1].body, R"({"a":[1,2]})");
  EXPECT_EQ(requests[1].header("Content-Type"), "application/json");
  EXPECT_TRUE(requests[2].header("Content-Type").value_or("").starts_with("multipart/form-data; boundary="));
  EXPECT_NE(requests[2].body.find("name=\"title\"\r\n\r\nHoliday\r\n"), std::string::npos);
  EXPECT_NE(requests[2].body.find(std::string(200000, '\xff')), std::string::npos);
  EXPECT_TRUE(requests[2].bodyComplete);
}

TEST(OrvelGet, FollowsRedirectsOnlyWithL) {
  ZRBTestServer server;
  server.redirect("/old", "/new", 302);
  server.respond("GET", "/new", ZRBTestResponse::text(200, "new place"));
  server.start();
  auto run = orvelGet({"-i", server.url("/old")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(run.out.starts_with("HTTP/1.1 302 Found\r\n")) << run.out;
  run = orvelGet({"-L", server.url("/old")});
  EXPECT_EQ(run.out, "new place");
}

// The pattern from `offset` on, honouring "Range: bytes=N-"; the first answer breaks off after
// `cutAfter` bytes when that is set.
ZRBTestHandler rangeHandler(std::uint64_t size, std::optional<std::string> etag, std::uint64_t cutAfter) {
  auto answered = std::make_shared<std::atomic<int>>(0);
  return [=](const ZRBTestRecordedRequest& request) {
    std::uint64_t offset = 0;
    auto range = request.header("Range");
    if (range && range->starts_with("bytes=")) offset = std::stoull(range->substr(6));
    ZRBTestResponse response;
    response.status = offset > 0 ? 206 : 200;
    response.headers.add("Content-Type", "application/octet-stream");
    if (etag) response.headers.add("ETag", *etag);
    if (offset > 0) {
      response.headers.add("Content-Range", "bytes " + std::to_string(offset) + "-" +
                                                std::to_string(size - 1) + "/" + std::to_string(size));
    }
    response.generatedBody = ZRBTestBodySource{
        size - offset,
        [offset](std::uint64_t at, std::span<char> out) { ZRBTestPatternFill(offset + at, out); }};
    response.chunkSize = 16 * 1024;
    if (answered->fetch_add(1) == 0 && cutAfter > 0) response.closeAfterBodyBytes = cutAfter;
    return response;
  };
}

TEST(OrvelGetResume, AnInterruptedDownloadContinuesFromItsResumeData) {
  constexpr std::uint64_t kSize = 2 << 20;
  ZRBTestServer server;
  server.handle("GET", "/big.bin", rangeHandler(kSize, "\"v1\"", 700000));
  server.start();
  TemporaryDirectory directory;
  auto output = directory.path / "big.bin";

  auto run = orvelGet({"-o", output.string(), server.url("/big.bin")});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("run again with -C"), std::string::npos) << run.err;
  EXPECT_TRUE(std::filesystem::exists(output.string() + ".orvel-resume"));
  EXPECT_FALSE(std::filesystem::exists(output));

  run = orvelGet({"-C", "-o", output.string(), server.url("/big.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(readFile(output)), ZRBTestPatternSHA256(0, kSize));
  EXPECT_FALSE(std::filesystem::exists(output.string() + ".orvel-resume"));
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  auto range = requests[1].header("Range").value_or("");
  EXPECT_TRUE(range.starts_with("bytes=") && range != "bytes=0-") << range;
  EXPECT_EQ(requests[1].header("If-Range"), "\"v1\"");
}

TEST(OrvelGetResume, APartialFileWithoutResumeDataIsContinuedWithRange) {
  constexpr std::uint64_t kSize = 1 << 20;
  constexpr std::uint64_t kHave = 300000;
  ZRBTestServer server;
  server.handle("GET", "/big.bin", rangeHandler(kSize, std::nullopt, 0));
  server.start();
  TemporaryDirectory directory;
  auto output = directory.path / "big.bin";
  writeFile(output, ZRBTestPatternBytes(0, kHave));

  auto run = orvelGet({"-C", "-o", output.string(), server.url("/big.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(readFile(output)), ZRBTestPatternSHA256(0, kSize));
  ASSERT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(server.requests()[0].header("Range"), "bytes=300000-");

  // A server that ignores the range sends everything, which replaces the file.
  ZRBTestServer ignoring;
  ignoring.serveRanges("/big.bin", {.body = ZRBTestBodySource::pattern(kSize), .ignoreRange = true});
  ignoring.start();
  writeFile(output, "garbage that is not the start of the resource");
  run = orvelGet({"-C", "-o", output.string(), ignoring.url("/big.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(readFile(output)), ZRBTestPatternSHA256(0, kSize));

  // A complete file: the server says there is nothing beyond it.
  ZRBTestServer ranges;
  ranges.serveRanges("/big.bin", {.body = ZRBTestBodySource::pattern(kSize)});
  ranges.start();
  run = orvelGet({"-C", "-o", output.string(), ranges.url("/big.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("is complete already"), std::string::npos) << run.err;
  EXPECT_EQ(std::filesystem::file_size(output), kSize);
}

TEST(OrvelGetResume, CtrlCKeepsResumeDataForTheNextRun) {
  constexpr std::uint64_t kSize = 3 << 20;
  ZRBTestServer server;
  ZRBTestRangeOptions options{.body = ZRBTestBodySource::pattern(kSize), .etag = std::string("\"v2\"")};
  options.shape.bytesPerSecond = 2 << 20;
  options.shape.chunkSize = 16 * 1024;
  server.serveRanges("/slow.bin", options);
  server.start();
  TemporaryDirectory directory;
  auto output = (directory.path / "slow.bin").string();
  auto errors = directory.path / "stderr";
  auto url = server.url("/slow.bin");

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int fd = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, STDERR_FILENO);
    execl(ORVEL_PROGRAM_PATH, "orvel", "get", "-o", output.c_str(), url.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_TRUE(server.waitForRequests(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(400));  // part of the body is in, not all
  kill(child, SIGINT);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 130);
  auto messages = readFile(errors);
  EXPECT_NE(messages.find("interrupted; run again with -C"), std::string::npos) << messages;
  ASSERT_TRUE(std::filesystem::exists(output + ".orvel-resume"));

  auto run = orvelGet({"-C", "-o", output, url});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(readFile(output)), ZRBTestPatternSHA256(0, kSize));
  auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].header("If-Range"), "\"v2\"");
}

// What `orvel get ARGUMENTS...` writes to standard error when that is a terminal (standard output
// goes to /dev/null).
std::string stderrOnATerminal(const std::vector<std::string>& arguments) {
  std::vector<std::string> words{"orvel", "get"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int master = -1;
  pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
  if (child < 0) return "forkpty failed";
  if (child == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    execv(ORVEL_PROGRAM_PATH, argv.data());
    _exit(127);
  }
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(n));
  close(master);
  int status = 0;
  waitpid(child, &status, 0);
  return text;
}

TEST(OrvelGet, DrawsProgressBarsForLongTransfersOnATerminal) {
  constexpr std::uint64_t kSize = 4 << 20;
  ZRBTestServer server;
  server.respond("GET", "/big.bin", ZRBTestResponse::generated(kSize));
  server.uploadSink("/sink");
  server.start();
  TemporaryDirectory directory;
  auto file = directory.path / "upload.bin";
  writeFile(file, ZRBTestPatternBytes(0, kSize));

  auto download = stderrOnATerminal({"-o", (directory.path / "down.bin").string(), server.url("/big.bin")});
  EXPECT_NE(download.find("\r[==="), std::string::npos) << download;
  EXPECT_NE(download.find("100%  4.0 MiB / 4.0 MiB"), std::string::npos) << download;

  auto upload = stderrOnATerminal({"-F", "file=@" + file.string(), server.url("/sink")});
  EXPECT_NE(upload.find("\rupload ["), std::string::npos) << upload;
  EXPECT_NE(upload.find("100%  4.0 MiB / 4.0 MiB"), std::string::npos) << upload;

  // -s keeps the terminal quiet.
  EXPECT_EQ(stderrOnATerminal({"-s", "-o", (directory.path / "quiet.bin").string(), server.url("/big.bin")}),
            "");
}

}  // namespace
