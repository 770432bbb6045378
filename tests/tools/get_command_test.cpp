// `orvel get` end to end: the built program against the loopback test server, checked by what it
// prints, the files it leaves and what the server received; and how -C plans a resume.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/temporary_directory.h"
#include "support/test_pki.h"
#include "support/test_server.h"

namespace {

struct Run {
  std::string out;
  std::string err;
  int status = -1;
};

void writeFile(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Runs the program `arguments[0]` with the rest. With `terminal`, standard error is a
// pseudo-terminal and standard output goes to /dev/null. `whileRunning` gets the child's id before
// it is waited for; `beforeExec` runs in the child.
Run runProgram(std::vector<std::string> arguments, bool terminal = false,
               const std::function<void(pid_t)>& whileRunning = {},
               const std::function<void()>& beforeExec = {}) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const ZRBTestTemporaryDirectory directory;
  const std::string errors = directory / "stderr";
  Run run;
  int ends[2] = {-1, -1};
  if (!terminal && pipe(ends) != 0) return run;
  pid_t child = terminal ? forkpty(&ends[0], nullptr, nullptr, nullptr) : fork();
  if (child == 0) {
    dup2(terminal ? open("/dev/null", O_WRONLY) : ends[1], STDOUT_FILENO);
    if (!terminal) dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
    if (beforeExec) beforeExec();
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (ends[1] >= 0) close(ends[1]);
  if (child < 0) return run;
  if (whileRunning) whileRunning(child);
  std::string& sink = terminal ? run.err : run.out;
  char buffer[4096];
  for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;)
    sink.append(buffer, static_cast<std::size_t>(n));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (!terminal) run.err = ZRBTestReadFile(errors);
  return run;
}

// Runs `orvel get ARGUMENTS...` (see runProgram).
Run orvelGet(std::vector<std::string> arguments, bool terminal = false,
             const std::function<void(pid_t)>& whileRunning = {}) {
  arguments.insert(arguments.begin(), {ORVEL_PROGRAM_PATH, "get"});
  return runProgram(std::move(arguments), terminal, whileRunning);
}

class OrvelGetHTTPS : public testing::Test {
 protected:
  static const ZRBTestChain& chain() { return ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256); }

  void SetUp() override {
    files_ = ZRBTestPKI::writeServerFiles(chain(), directory_.path);
    server_.start();
  }

  std::string root() const { return files_.root.string(); }

  ZRBTestTemporaryDirectory directory_;
  ZRBTestServerFiles files_;
  ZRBTestServer server_{ZRBTestServerOptions{.tls = chain()}};
};

// -i prints the head before the body; --decode prints the decoded body, or the head alone and the
// reason when the body is of a kind it refuses.
TEST_F(OrvelGetHTTPS, PrintsHeadAndBodyOrTheDecodedBody) {
  ZRBTestResponse answer = ZRBTestResponse::json(200, R"({"ok":[true]})");
  answer.headers.add("X-Served-By", "test");
  server_.respond("GET", "/status.json", answer);
  server_.respond("GET", "/page", ZRBTestResponse::text(200, "plain words"));

  auto run = orvelGet({"-i", "--cacert", root(), "-H", "X-Trace: abc", server_.url("/status.json")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(run.out.starts_with("HTTP/1.1 200 OK\r\n")) << run.out;
  EXPECT_NE(run.out.find("\r\nX-Served-By: test\r\n"), std::string::npos) << run.out;
  EXPECT_TRUE(run.out.ends_with("\r\n\r\n{\"ok\":[true]}")) << run.out;
  ASSERT_EQ(server_.requestCount(), 1u);
  EXPECT_EQ(server_.requests()[0].header("X-Trace"), "abc");

  run = orvelGet({"--decode", "--cacert", root(), server_.url("/status.json")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "{\n  \"ok\" : [\n    true\n  ]\n}\n");

  run = orvelGet({"--decode", "-i", "--cacert", root(), server_.url("/page")});
  EXPECT_EQ(run.status, 22);
  EXPECT_TRUE(run.out.starts_with("HTTP/1.1 200 OK\r\n")) << "the head is printed as without --decode";
  EXPECT_EQ(run.out.find("plain words"), std::string::npos);
  EXPECT_EQ(run.err, "orvel: Request failed: unacceptable content-type: text/plain\n");

  EXPECT_EQ(orvelGet({"--decode", "-o", "x", server_.url("/page")}).status, 2);
}

TEST_F(OrvelGetHTTPS, UntrustedServersFailUnlessInsecure) {
  server_.respond("GET", "/x", ZRBTestResponse::text(200, "body"));
  // Another PKI's root does not vouch for this server.
  const std::string otherRoot =
      directory_.write("other-root.pem", ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP384).rootPEM());

  auto run = orvelGet({"--cacert", otherRoot, server_.url("/x")});
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
  EXPECT_EQ(ZRBTestSHA256Hex(ZRBTestReadFile(output)), ZRBTestPatternSHA256(0, kSize, 7));

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

// Plain HTTP: a sink that answers with what it received, a redirect and a large download.
class OrvelGet : public testing::Test {
 protected:
  static constexpr std::uint64_t kSize = 4 << 20;

  void SetUp() override {
    server_.uploadSink("/sink", {.keepLimit = 1 << 20});
    server_.redirect("/old", "/new", 302);
    server_.respond("GET", "/new", ZRBTestResponse::text(200, "new place"));
    server_.respond("GET", "/big.bin", ZRBTestResponse::generated(kSize));
    server_.start();
  }

  ZRBTestTemporaryDirectory directory_;
  ZRBTestServer server_;
};

TEST_F(OrvelGet, FollowsRedirectsOnlyWithL) {
  auto run = orvelGet({"-i", server_.url("/old")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(run.out.starts_with("HTTP/1.1 302 Found\r\n")) << run.out;
  EXPECT_EQ(orvelGet({"-L", server_.url("/old")}).out, "new place");
}

// --cache answers a repeated request from the request cache (in a data directory of the test's own)
// while the same header fields go with it, and says so on standard error.
TEST_F(OrvelGet, CacheAnswersRepeatsWithTheSameFields) {
  server_.respond("GET", "/doc", ZRBTestResponse::text(200, "cached words"));
  auto cached = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {ORVEL_PROGRAM_PATH, "get", "--cache", "60"});
    words.push_back(server_.url("/doc"));
    return runProgram(words, false, {}, [&] { setenv("XDG_DATA_HOME", directory_.path.c_str(), 1); });
  };
  const std::string hit = "orvel: answered from the request cache (";
  struct Case {
    std::vector<std::string> words;
    bool fromCache;
  };
  const Case cases[] = {
      {{}, false},
      {{}, true},
      {{"-o", (directory_.path / "doc.txt").string()}, true},
      {{"-H", "X-Trace: 1"}, false},  // other fields, another answer
      {{"-H", "X-Trace: 1"}, true},
  };
  std::size_t served = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.words));
    auto run = cached(c.words);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err.starts_with(hit), c.fromCache) << run.err;
    EXPECT_EQ(server_.requestCount(), served += c.fromCache ? 0 : 1);
  }
  EXPECT_EQ(ZRBTestReadFile(directory_.path / "doc.txt"), "cached words");
  EXPECT_EQ(cached({}).out, "cached words");
  EXPECT_EQ(cached({"-F", "a=b"}).status, 2);
  EXPECT_EQ(cached({"-X", "PROPFIND"}).status, 2);
}

// Progress bars need a terminal on standard error and a long transfer; -s keeps the terminal quiet.
TEST_F(OrvelGet, DrawsProgressBarsForLongTransfersOnATerminal) {
  auto file = directory_.path / "upload.bin";
  writeFile(file, ZRBTestPatternBytes(0, kSize));
  auto download =
      orvelGet({"-o", (directory_.path / "down.bin").string(), server_.url("/big.bin")}, true).err;
  EXPECT_NE(download.find("\r[==="), std::string::npos) << download;
  EXPECT_NE(download.find("100%  4.0 MiB / 4.0 MiB"), std::string::npos) << download;
  auto upload = orvelGet({"-F", "file=@" + file.string(), server_.url("/sink")}, true).err;
  EXPECT_NE(upload.find("\rupload ["), std::string::npos) << upload;
  EXPECT_NE(upload.find("100%  4.0 MiB / 4.0 MiB"), std::string::npos) << upload;
  EXPECT_EQ(
      orvelGet({"-s", "-o", (directory_.path / "quiet.bin").string(), server_.url("/big.bin")}, true).err,
      "");
}

// Form fields, multipart and authorization reach the server, from data and download tasks alike;
// what the request layer cannot express goes through the session manager with the same body.
TEST_F(OrvelGet, RequestsCarryTheirBodiesAndTheUserAgentNamesTheProgram) {
  const std::string photo = directory_.write("photo.jpg", std::string(200000, '\xff'));
  const std::string answer = directory_ / "answer.json";
  struct Case {
    std::vector<std::string> words;
    std::string method, body;  // the body, or a part of a multipart one
  };
  const Case cases[] = {
      {{"-d", "name=Ann Lee", "-d", "n=1", "-u", "ann:pw"}, "POST", "n=1&name=Ann%20Lee"},
      {{"-F", "title=Holiday", "-F", "photo=@" + photo}, "POST", "name=\"title\"\r\n\r\nHoliday\r\n"},
      {{"-o", answer, "-d", "a=b"}, "POST", "a=b"},
      {{"-X", "PUT", "-d", "x", "-o", answer}, "PUT", "x"},
      {{"-X", "PROPFIND", "-H", "Accept-Language:", "-H", "User-Agent:", "-d", "a=b", "-o", answer},
       "PROPFIND",
       "a=b"},
  };
  for (const auto& c : cases) {
    auto words = c.words;
    words.push_back(server_.url("/sink"));
    auto run = orvelGet(words);
    EXPECT_EQ(run.status, 0) << run.err;
  }
  EXPECT_NE(ZRBTestReadFile(answer).find("\"bytes\":3"), std::string::npos) << ZRBTestReadFile(answer);
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), std::size(cases));
  for (std::size_t i = 0; i < requests.size(); ++i) {
    SCOPED_TRACE(cases[i].method);
    EXPECT_EQ(requests[i].method, cases[i].method);
    EXPECT_NE(requests[i].body.find(cases[i].body), std::string::npos) << requests[i].body;
    EXPECT_TRUE(requests[i].bodyComplete);
    // "Name:" removes the field, also the one the transport would add itself.
    EXPECT_EQ(requests[i].header("Accept-Language").has_value(), cases[i].method != "PROPFIND");
    EXPECT_EQ(requests[i].header("User-Agent").has_value(), cases[i].method != "PROPFIND");
  }
  EXPECT_EQ(requests[0].header("Authorization"), "Basic YW5uOnB3");
  EXPECT_NE(requests[1].body.find(std::string(200000, '\xff')), std::string::npos);
  auto userAgent = requests[0].header("User-Agent").value_or("");
  EXPECT_TRUE(std::regex_search(userAgent, std::regex(R"(^orvel/[0-9]+\.[0-9]+\.[0-9]+ \(.+; Scale/)")))
      << userAgent;
}

// -o naming a device, a FIFO or "-": the body is written as it arrives and the path stays what it
// was; a device that takes nothing is a clear failure.
TEST_F(OrvelGet, WritesIntoDevicesFIFOsAndStandardOutput) {
  auto run = orvelGet({"-o", "/dev/null", server_.url("/big.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
  run = orvelGet({"-o", "-", server_.url("/new")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "new place");

  auto fifo = directory_.path / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string fromFifo;
  std::thread reader([&] { fromFifo = ZRBTestReadFile(fifo); });
  run = orvelGet({"-o", fifo.string(), server_.url("/big.bin")});
  close(open(fifo.c_str(), O_WRONLY | O_NONBLOCK));  // frees the reader if orvel never opened it
  reader.join();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(fromFifo), ZRBTestPatternSHA256(0, kSize));
  EXPECT_TRUE(std::filesystem::is_fifo(fifo));

  run = orvelGet({"-o", "/dev/full", server_.url("/big.bin")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "orvel: cannot write /dev/full: No space left on device\n");
}

// A file system that fills up half-way (64 KiB, in a mount namespace of the child's own) leaves an
// existing target as it was and no file for a new one, and says why.
TEST_F(OrvelGet, AWriteThatFailsHalfWayLeavesTheTargetAsItWas) {
  auto small = (directory_.path / "small").string();
  std::filesystem::create_directory(small);
  std::string orvel = ORVEL_PROGRAM_PATH;
  std::string script = "echo old > " + small + "/kept.bin; " + orvel + " get -o " + small + "/kept.bin " +
                       server_.url("/big.bin") + "; a=$?; " + orvel + " get -o " + small + "/new.bin " +
                       server_.url("/big.bin") + "; echo \"status $a $?\"; ls -A " + small + "; cat " +
                       small + "/kept.bin";
  auto run = runProgram({"/bin/sh", "-c", script}, false, {}, [&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", small.c_str(), "tmpfs", 0, "size=64k") != 0) {
      _exit(77);
    }
  });
  if (run.status == 77) GTEST_SKIP() << "no mount namespace for a small file system here";
  EXPECT_EQ(run.out, "status 1 1\nkept.bin\nold\n");
  EXPECT_EQ(run.err, "orvel: cannot write " + small +
                         "/kept.bin: No space left on device\norvel: cannot write " + small +
                         "/new.bin: No space left on device\n");
}

// Failures after the command line was accepted: each is one line on standard error and an exit
// status of its own (see the README), and none leaves a broken output file behind.
TEST_F(OrvelGet, ErrorPathsSayWhatFailedAndExitWithTheirStatus) {
  server_.respond("GET", "/error", ZRBTestResponse::text(500, "broken"));
  server_.redirectLoop("/loop/a", "/loop/b");
  server_.respond(
      "GET", "/stall",
      ZRBTestResponse{.status = 200, .body = "late", .delayBeforeHeaders = std::chrono::seconds(2)});
  auto output = directory_.path / "out.bin";
  auto noCertificate = directory_.path / "no-certificate.pem";
  writeFile(noCertificate, "-----BEGIN NOTHING-----\n-----END NOTHING-----\n");
  ZRBTestServer closed;
  closed.start();
  const std::string closedPort = std::to_string(closed.port());
  closed.stop();
  struct Case {
    std::vector<std::string> arguments;
    int status;
    std::string message;  // the whole of standard error
  };
  const Case cases[] = {
      {{"-o"},
       2,
       "orvel: option -o needs a value\nusage: orvel get [OPTIONS] URL ('orvel get -h' lists the options)\n"},
      {{"http://127.0.0.1:" + closedPort + "/"},
       1,
       "orvel: could not connect to 127.0.0.1:" + closedPort + " (ZRBURLErrorDomain -1004)\n"},
      {{"--cacert", noCertificate.string(), server_.url("/new")},
       2,
       "orvel: --cacert " + noCertificate.string() + ": no PEM certificate in it\n"},
      {{"-o", (directory_.path / "missing" / "out.bin").string(), server_.url("/new")},
       1,
       "orvel: cannot write " + (directory_.path / "missing" / "out.bin").string() +
           ": No such file or directory\n"},
      {{"-L", server_.url("/loop/a")}, 1, "orvel: too many HTTP redirects (ZRBURLErrorDomain -1007)\n"},
      {{"--timeout", "0.2", server_.url("/stall")},
       1,
       "orvel: timed out talking to 127.0.0.1:" + std::to_string(server_.port()) +
           " (ZRBURLErrorDomain -1001)\n"},
      {{"-C", "-o", output.string(), server_.url("/error")},
       22,
       "orvel: cannot resume " + output.string() + ": the server answered 500 Internal Server Error\n"},
  };
  writeFile(output, "first part");
  for (const auto& c : cases) {
    std::string shown;
    for (const auto& argument : c.arguments) shown += argument + " ";
    SCOPED_TRACE(shown);
    auto run = orvelGet(c.arguments);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.err, c.message);
  }
  EXPECT_EQ(ZRBTestReadFile(output), "first part");  // the failed resume left the file as it was
  // Only the redirects and the resume reached the server: the bad --cacert and output were caught first.
  for (const auto& request : server_.requests()) EXPECT_NE(request.path, "/new");
}

// Resources for -C: one whose answers all break off after 700000 bytes (which leaves a resumed
// rest whole), a slow one to interrupt, one without validators and one that ignores ranges.
class OrvelGetResumeRun : public testing::Test {
 protected:
  static constexpr std::uint64_t kSize = 1 << 20;

  void SetUp() override {
    ZRBTestRangeOptions cut{.body = ZRBTestBodySource::pattern(kSize), .etag = std::string("\"v1\"")};
    cut.shape.closeAfterBodyBytes = 700000;
    server_.serveRanges("/cut.bin", cut);
    ZRBTestRangeOptions slow{.body = ZRBTestBodySource::pattern(3 * kSize), .etag = std::string("\"v2\"")};
    slow.shape.bytesPerSecond = 2 << 20;
    slow.shape.chunkSize = 16 * 1024;
    server_.serveRanges("/slow.bin", slow);
    server_.serveRanges("/plain.bin", {.body = ZRBTestBodySource::pattern(kSize)});
    server_.serveRanges("/ignoring.bin", {.body = ZRBTestBodySource::pattern(kSize), .ignoreRange = true});
    server_.start();
  }

  ZRBTestTemporaryDirectory directory_;
  const std::string output_ = (directory_.path / "out.bin").string();
  ZRBTestServer server_;
};

TEST_F(OrvelGetResumeRun, AFailedDownloadContinuesFromItsResumeData) {
  auto run = orvelGet({"-o", output_, server_.url("/cut.bin")});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("run again with -C"), std::string::npos) << run.err;
  EXPECT_TRUE(std::filesystem::exists(output_ + ".orvel-resume"));
  EXPECT_FALSE(std::filesystem::exists(output_));

  writeFile(output_, "partial");  // resume data wins over a partial file
  run = orvelGet({"-C", "-o", output_, server_.url("/cut.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(ZRBTestReadFile(output_)), ZRBTestPatternSHA256(0, kSize));
  EXPECT_FALSE(std::filesystem::exists(output_ + ".orvel-resume"));
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 2u);
  auto range = requests[1].header("Range").value_or("");
  EXPECT_TRUE(range.starts_with("bytes=") && range != "bytes=0-") << range;
  EXPECT_EQ(requests[1].header("If-Range"), "\"v1\"");
}

TEST_F(OrvelGetResumeRun, CtrlCKeepsResumeDataForTheNextRun) {
  auto run = orvelGet({"-o", output_, server_.url("/slow.bin")}, false, [&](pid_t child) {
    EXPECT_TRUE(server_.waitForRequests(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));  // part of the body is in, not all
    kill(child, SIGINT);
  });
  EXPECT_EQ(run.status, 130);
  EXPECT_NE(run.err.find("interrupted; run again with -C"), std::string::npos) << run.err;
  ASSERT_TRUE(std::filesystem::exists(output_ + ".orvel-resume"));

  run = orvelGet({"-C", "-o", output_, server_.url("/slow.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(ZRBTestReadFile(output_)), ZRBTestPatternSHA256(0, 3 * kSize));
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].header("If-Range"), "\"v2\"");
}

TEST_F(OrvelGetResumeRun, AnErrorStatusOnResumeKeepsWhatThereIs) {
  auto run = orvelGet({"-o", output_, server_.url("/cut.bin")});
  ASSERT_EQ(run.status, 1);
  ASSERT_TRUE(std::filesystem::exists(output_ + ".orvel-resume"));
  server_.respond("GET", "/cut.bin", ZRBTestResponse::text(503, "try later"));
  run = orvelGet({"-C", "-o", output_, server_.url("/cut.bin")});
  EXPECT_EQ(run.status, 22);
  EXPECT_EQ(run.err, "orvel: cannot resume " + output_ + ": the server answered 503 Service Unavailable\n");
  EXPECT_FALSE(std::filesystem::exists(output_));
  EXPECT_TRUE(std::filesystem::exists(output_ + ".orvel-resume"));

  // Once the server is back, the next -C asks for the rest only and completes the file.
  server_.serveRanges("/cut.bin", {.body = ZRBTestBodySource::pattern(kSize), .etag = std::string("\"v1\"")});
  run = orvelGet({"-C", "-o", output_, server_.url("/cut.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(ZRBTestReadFile(output_)), ZRBTestPatternSHA256(0, kSize));
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[2].header("Range"), "bytes=700000-");
  EXPECT_EQ(requests[2].header("If-Range"), "\"v1\"");
}

TEST_F(OrvelGetResumeRun, APartialFileWithoutResumeDataIsContinuedWithRange) {
  writeFile(output_, ZRBTestPatternBytes(0, 300000));
  auto run = orvelGet({"-C", "-o", output_, server_.url("/plain.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(ZRBTestReadFile(output_)), ZRBTestPatternSHA256(0, kSize));
  ASSERT_EQ(server_.requestCount(), 1u);
  EXPECT_EQ(server_.requests()[0].header("Range"), "bytes=300000-");

  // A complete file: the server says there is nothing beyond it.
  run = orvelGet({"-C", "-o", output_, server_.url("/plain.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("is complete already"), std::string::npos) << run.err;
  EXPECT_EQ(std::filesystem::file_size(output_), kSize);

  // A server that ignores the range sends everything, which replaces the file.
  writeFile(output_, "garbage that is not the start of the resource");
  run = orvelGet({"-C", "-o", output_, server_.url("/ignoring.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ZRBTestSHA256Hex(ZRBTestReadFile(output_)), ZRBTestPatternSHA256(0, kSize));
}

}  // namespace
