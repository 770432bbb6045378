#include "get_output_target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// Copies the whole file into `to` (an open descriptor); 0, or the errno of the failure.
int copyInto(const std::string& from, int to) {
  int source = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (source < 0) return errno;
  std::vector<char> buffer(1 << 20);
  int result = 0;
  for (;;) {
    ssize_t got = ::read(source, buffer.data(), buffer.size());
    if (got < 0) {
      if (errno == EINTR) continue;
      result = errno;
      break;
    }
    if (got == 0) break;
    for (ssize_t written = 0; written < got;) {
      ssize_t n = ::write(to, buffer.data() + written, static_cast<std::size_t>(got - written));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        result = n < 0 ? errno : ENOSPC;
        break;
      }
      written += n;
    }
    if (result != 0) break;
  }
  ::close(source);
  return result;
}

}  // namespace

OrvelOutputTarget::~OrvelOutputTarget() {
  if (ownsStream_ && stream_) std::fclose(stream_);
  if (!staging_.empty() && !committed_) ::unlink(staging_.c_str());
}

std::string OrvelOutputTarget::failureFor(int error) const {
  return "cannot write " + name_ + ": " + std::strerror(error);
}

bool OrvelOutputTarget::prepare(const std::optional<std::string>& path, bool append, std::string& failure) {
  if (!path) return true;
  name_ = *path;
  target_ = *path;
  struct stat info {};
  bool exists = ::stat(path->c_str(), &info) == 0;
  if (exists && S_ISDIR(info.st_mode)) {
    failure = failureFor(EISDIR);
    return false;
  }
  if (exists && !S_ISREG(info.st_mode)) {
    if (append) {
      failure = "cannot resume into " + name_ + ": it is not a regular file";
      return false;
    }
    kind_ = Kind::Stream;
    stream_ = std::fopen(path->c_str(), "wb");
    ownsStream_ = stream_ != nullptr;
    if (!stream_) failure = failureFor(errno);
    return stream_ != nullptr;
  }
  if (exists) {
    // The file a link points at is the one to replace, not the link.
    if (char* resolved = ::realpath(path->c_str(), nullptr)) {
      target_ = resolved;
      std::free(resolved);
    }
  }
  if (append) {
    kind_ = Kind::AppendedFile;
    stream_ = std::fopen(target_.c_str(), "ab");
    ownsStream_ = stream_ != nullptr;
    if (!stream_) failure = failureFor(errno);
    return stream_ != nullptr;
  }
  kind_ = Kind::ReplacedFile;
  // Made now, beside the target: it proves the folder writable before anything is fetched, and a
  // rename from it never crosses file systems.
  std::string pattern = target_ + ".orvel-XXXXXX";
  int descriptor = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (descriptor < 0) {
    failure = failureFor(errno);
    return false;
  }
  staging_ = pattern;
  // Keep the mode an existing file had; a new one gets what the umask allows.
  mode_t mode = exists ? info.st_mode & 07777 : [] {
    mode_t mask = ::umask(0);
    ::umask(mask);
    return static_cast<mode_t>(0666 & ~mask);
  }();
  ::fchmod(descriptor, mode);
  stream_ = ::fdopen(descriptor, "wb");
  if (!stream_) {
    failure = failureFor(errno);
    ::close(descriptor);
    return false;
  }
  ownsStream_ = true;
  return true;
}

bool OrvelOutputTarget::commitDownload(const std::string& location, std::string& failure) {
  if (kind_ != Kind::ReplacedFile) {
    failure = "internal error: a download into " + name_;
    return false;
  }
  if (::rename(location.c_str(), target_.c_str()) == 0) {
    committed_ = true;
    ::unlink(staging_.c_str());
    return true;
  }
  if (errno != EXDEV) {
    failure = failureFor(errno);
    return false;
  }
  int error = copyInto(location, ::fileno(stream_));
  if (error == 0 && ::fsync(::fileno(stream_)) != 0) error = errno;
  if (error != 0) {
    failure = failureFor(error);
    return false;
  }
  if (::rename(staging_.c_str(), target_.c_str()) != 0) {
    failure = failureFor(errno);
    return false;
  }
  committed_ = true;
  return true;
}

bool OrvelOutputTarget::commitStream(std::string& failure) {
  if (std::fflush(stream_) != 0) {
    failure = failureFor(errno);
    return false;
  }
  if (kind_ != Kind::ReplacedFile) return true;
  if (::fsync(::fileno(stream_)) != 0 || ::rename(staging_.c_str(), target_.c_str()) != 0) {
    failure = failureFor(errno);
    return false;
  }
  committed_ = true;
  return true;
}
