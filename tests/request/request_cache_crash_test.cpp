// A cache writer killed at a random point of its writes: the next process finds the old entry, the
// new one, or one that is refused, and never a body under metadata written for another body.
//
// The writer is this test program run again (fork and exec, so the child starts with a clean
// process) with only the disabled writer test selected; it writes entries with rising versions
// whose bodies name their version, and reports each finished write on a pipe.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <latch>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/keyed_archiver.h"
#include "platform/system/file_manager.h"
#include "request/request.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr const char* kDirVariable = "ORVELKIT_CACHE_WRITER_DIR";
constexpr const char* kFirstVersionVariable = "ORVELKIT_CACHE_WRITER_FIRST";
constexpr int kProgressFd = 3;

class VersionedRequest : public ZRBRQ_Request {
 public:
  long long version = 0;
  std::string requestUrl() const override { return "/device/status"; }
  long cacheTimeInSeconds() const override { return 3600; }
  long long cacheVersion() const override { return version; }
};

// Bodies of 1 KiB to about 1 MiB, so that a kill often lands inside a write.
ZRBValue bodyFor(long long version) {
  const std::size_t padding = 1024 + static_cast<std::size_t>(version % 17) * 61 * 1024;
  return ZRBValue::data(R"({"v":)" + std::to_string(version) + R"(,"pad":")" + std::string(padding, 'x') +
                        "\"}");
}

TEST(RequestCacheCrash, DISABLED_WriterChild) {
  const char* dir = std::getenv(kDirVariable);
  const char* first = std::getenv(kFirstVersionVariable);
  if (!dir || !first) GTEST_SKIP() << "runs only as the child of KilledWriter";
  ZRBFileManager::defaultManager()->setLibraryDirectory(dir);
  for (long long version = std::atoll(first);; ++version) {
    auto request = std::make_shared<VersionedRequest>();
    request->version = version;
    request->saveResponseDataToCacheFile(bodyFor(version));
    if (::write(kProgressFd, "w", 1) != 1) return;  // the parent is gone
  }
}

TEST(RequestCacheCrash, KilledWriterLeavesTheOldEntryTheNewOneOrARefusedOne) {
  const fs::path library = fs::temp_directory_path() / ("orvelkit-cache-crash-" + std::to_string(::getpid()));
  fs::remove_all(library);
  fs::create_directories(library);
  ZRBFileManager::defaultManager()->setLibraryDirectory(library.string());
  std::string self = fs::read_symlink("/proc/self/exe").string();

  std::mt19937 random(std::random_device{}());
  const auto cap = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  int loaded = 0;
  int iterations = 0;
  for (; iterations < 40 && std::chrono::steady_clock::now() < cap; ++iterations) {
    // Everything the child needs is prepared before fork: after it only exec-safe calls are made.
    std::vector<std::string> variables;
    for (char** e = environ; *e; ++e) variables.emplace_back(*e);
    variables.push_back(std::string(kDirVariable) + "=" + library.string());
    variables.push_back(std::string(kFirstVersionVariable) + "=" + std::to_string(iterations * 100000 + 1));
    std::vector<char*> envp;
    for (auto& v : variables) envp.push_back(v.data());
    envp.push_back(nullptr);
    std::string filter = "--gtest_filter=RequestCacheCrash.DISABLED_WriterChild";
    std::string disabled = "--gtest_also_run_disabled_tests";
    char* argv[] = {self.data(), filter.data(), disabled.data(), nullptr};
    int progress[2];
    ASSERT_EQ(::pipe2(progress, O_CLOEXEC), 0);
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(devNull, 0);

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::dup2(progress[1], kProgressFd);  // dup2 clears close-on-exec on the copy
      ::dup2(devNull, STDOUT_FILENO);
      ::execve(self.c_str(), argv, envp.data());
      ::_exit(127);
    }
    ::close(progress[1]);
    ::close(devNull);

    // Let it finish a few writes, then kill it somewhere inside a later one.
    const int writes = std::uniform_int_distribution<int>(1, 4)(random);
    char byte;
    for (int i = 0; i < writes; ++i) ASSERT_EQ(::read(progress[0], &byte, 1), 1) << "the writer died early";
    ::usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(random));  // a random kill point
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(progress[0]);

    auto probe = std::make_shared<VersionedRequest>();
    ZRBRQ_CacheMetadataPtr metadata;
    if (auto bytes = ZRBFileManager::defaultManager()->contentsAtPath(probe->cacheMetadataFilePath())) {
      metadata = ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBRQ_CacheMetadata>(*bytes);
    }
    if (metadata && metadata->version()) probe->version = *metadata->version();
    ZRBErrorPtr error;
    if (probe->loadCacheWithError(&error)) {
      ++loaded;
      EXPECT_EQ(probe->cacheJSON()["v"].intValue(), probe->version) << "a body under another body's metadata";
    } else {
      EXPECT_TRUE(error->code() == ZRBRequestCacheErrorInvalidMetadata ||
                  error->code() == ZRBRequestCacheErrorInvalidCacheData)
          << error->code();
    }
  }
  EXPECT_GT(iterations, 0);
  EXPECT_GT(loaded, 0) << "no kill left a complete entry in " << iterations << " runs";
  ZRBFileManager::defaultManager()->setLibraryDirectory(std::nullopt);
  fs::remove_all(library);
}

// Within one process, synchronous writes run side by side on the agent's queue: two writers of one
// entry started together, twenty times, each time leave a body and a record from the same writer.
TEST(RequestCacheCrash, ConcurrentWritersOfOneEntryLeaveAMatchingPair) {
  const fs::path library =
      fs::temp_directory_path() / ("orvelkit-cache-writers-" + std::to_string(::getpid()));
  ZRBFileManager::defaultManager()->setLibraryDirectory(library.string());
  for (long long round = 0; round < 20; ++round) {
    std::latch start(2);
    std::vector<std::thread> writers;
    for (long long version : {round * 2 + 1, round * 2 + 2}) {
      writers.emplace_back([&start, version] {
        auto request = std::make_shared<VersionedRequest>();
        request->version = version;
        const ZRBValue body = bodyFor(version);
        start.arrive_and_wait();
        request->saveResponseDataToCacheFile(body);
      });
    }
    for (auto& writer : writers) writer.join();
    auto probe = std::make_shared<VersionedRequest>();
    const auto bytes = ZRBFileManager::defaultManager()->contentsAtPath(probe->cacheMetadataFilePath());
    probe->version =
        ZRBKeyedUnarchiver::unarchivedObjectOfClass<ZRBRQ_CacheMetadata>(*bytes)->version().value();
    ASSERT_TRUE(probe->loadCacheWithError());
    EXPECT_EQ(probe->cacheJSON()["v"].intValue(), probe->version);
  }
  ZRBFileManager::defaultManager()->setLibraryDirectory(std::nullopt);
  fs::remove_all(library);
}

}  // namespace
