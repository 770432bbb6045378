// Where `orvel get` puts the body.
//
// - Standard output: no -o, or -o -.
// - A replaced file: -o naming a regular file, or a path that does not exist yet. The target is
//   replaced only once the whole body is in: a download task's file is renamed into place, and a
//   body that streams in (an upload's answer) goes to a staging file beside the target first. A
//   transfer that fails, or a write that fails half-way (a full disk), leaves the target as it was.
//   A symbolic link is followed: the file it points at is replaced.
// - An appended file: a Range resume continues the file itself (it is its own resume point).
// - A stream: -o naming anything else that can be written (/dev/null, a FIFO, a terminal, a
//   socket), written as the body arrives; renaming over it would replace it.
//
// prepare() checks the target before any connection is made, so that an output that cannot be
// written fails at once. Failures are one line: "cannot write PATH: reason".
#pragma once

#include <cstdio>
#include <optional>
#include <string>

class OrvelOutputTarget {
 public:
  enum class Kind { StandardOutput, ReplacedFile, AppendedFile, Stream };

  OrvelOutputTarget() = default;
  OrvelOutputTarget(const OrvelOutputTarget&) = delete;
  OrvelOutputTarget& operator=(const OrvelOutputTarget&) = delete;
  // Removes the staging file unless the body was committed.
  ~OrvelOutputTarget();

  // `path` is nullopt for standard output. `append` is for a Range resume. False with `failure`.
  bool prepare(const std::optional<std::string>& path, bool append, std::string& failure);

  Kind kind() const { return kind_; }
  // The path as given, or "standard output": what messages name.
  const std::string& name() const { return name_; }
  // Where a body that streams in is written (for a replaced file: the staging file).
  std::FILE* stream() const { return stream_; }

  // A download task's finished file goes into place: renamed, or, from another file system, copied
  // into the staging file which is then renamed. False with `failure`; the target is untouched.
  bool commitDownload(const std::string& location, std::string& failure);
  // A body written through stream() is complete: flushes it and, for a replaced file, renames the
  // staging file over the target. False with `failure`.
  bool commitStream(std::string& failure);

 private:
  std::string failureFor(int error) const;

  Kind kind_ = Kind::StandardOutput;
  std::string name_ = "standard output";
  std::string target_;   // the file that is replaced or appended to (links resolved)
  std::string staging_;  // beside target_, for a replaced file
  std::FILE* stream_ = stdout;
  bool ownsStream_ = false;
  bool committed_ = false;
};
