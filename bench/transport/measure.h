// What the two transport benchmark programs share: the command line, the clock and the resource
// counters, and the one-line report that run.sh reads. Both programs print the same keys so that
// the script can put them side by side.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>

namespace transport_bench {

// How a run ended, set once from whichever thread sees the end first: empty for success, else the
// failure's text. wait() blocks until it is set.
class Outcome {
 public:
  void finish(std::string failure) {
    std::lock_guard lock(mutex_);
    if (finished_) return;
    finished_ = true;
    result_ = std::move(failure);
    done_.notify_all();
  }
  std::string wait() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [this] { return finished_; });
    return result_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::string result_;
};

struct Options {
  enum class Mode { Requests, JSONRequests, Download, Upload } mode = Mode::Requests;
  std::string url;
  long count = 0;        // requests: how many
  long concurrency = 1;  // requests: how many in flight
  std::string file;      // download: where the body goes; upload: where it comes from
  std::optional<std::string> caFile;
};

inline void usage(const char* program) {
  std::fprintf(stderr,
               "usage: %s requests URL COUNT CONCURRENCY [CA_PEM]\n"
               "       %s json-requests URL COUNT CONCURRENCY [CA_PEM]\n"
               "       %s download URL OUTPUT_FILE [CA_PEM]\n"
               "       %s upload URL INPUT_FILE [CA_PEM]\n",
               program, program, program, program);
  std::exit(2);
}

inline Options parseOptions(int argc, char** argv) {
  if (argc < 4) usage(argv[0]);
  Options options;
  const std::string mode = argv[1];
  options.url = argv[2];
  int next = 3;
  if (mode == "requests" || mode == "json-requests") {
    if (argc < 5) usage(argv[0]);
    // json-requests: each body is decoded as JSON once it is in, as an application would.
    options.mode = mode == "requests" ? Options::Mode::Requests : Options::Mode::JSONRequests;
    options.count = std::strtol(argv[3], nullptr, 10);
    options.concurrency = std::strtol(argv[4], nullptr, 10);
    if (options.count <= 0 || options.concurrency <= 0) usage(argv[0]);
    next = 5;
  } else if (mode == "download" || mode == "upload") {
    options.mode = mode == "download" ? Options::Mode::Download : Options::Mode::Upload;
    options.file = argv[3];
    next = 4;
  } else {
    usage(argv[0]);
  }
  if (argc > next) options.caFile = argv[next];
  return options;
}

// CPU time (user and system, every thread of the process) and wall time from construction on.
class Stopwatch {
 public:
  Stopwatch() : wallStart_(std::chrono::steady_clock::now()), cpuStart_(cpuSeconds()) {}
  double wallSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart_).count();
  }
  double cpuSecondsUsed() const { return cpuSeconds() - cpuStart_; }

 private:
  static double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
  }
  std::chrono::steady_clock::time_point wallStart_;
  double cpuStart_;
};

inline long peakRSSKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;  // kilobytes on Linux
}

// `protocol` is the HTTP version of the last response ("HTTP/1.1", "HTTP/2"), so that the script can
// tell when the two sides did not speak the same one.
inline void reportRequests(long count, const Stopwatch& watch, const std::string& protocol) {
  const double wall = watch.wallSeconds();
  const double cpu = watch.cpuSecondsUsed();
  std::printf(
      "requests=%ld seconds=%.4f requests_per_s=%.1f cpu_us_per_request=%.2f peak_rss_kib=%ld protocol=%s\n",
      count, wall, static_cast<double>(count) / wall, cpu * 1e6 / static_cast<double>(count), peakRSSKiB(),
      protocol.c_str());
  std::fflush(stdout);
}

inline void reportTransfer(long long bytes, const Stopwatch& watch, const std::string& protocol) {
  const double wall = watch.wallSeconds();
  std::printf("bytes=%lld seconds=%.4f mb_per_s=%.1f cpu_seconds=%.3f peak_rss_kib=%ld protocol=%s\n", bytes,
              wall, static_cast<double>(bytes) / 1e6 / wall, watch.cpuSecondsUsed(), peakRSSKiB(),
              protocol.c_str());
  std::fflush(stdout);
}

[[noreturn]] inline void fail(const std::string& message) {
  std::fprintf(stderr, "error: %s\n", message.c_str());
  std::exit(1);
}

}  // namespace transport_bench
