// Resuming `orvel get -C -o FILE`.
//
// An interrupted download (a failure, or Ctrl-C) leaves its resume data in FILE.orvel-resume; the
// session's resume data names the partial file it kept, and the next run with -C hands it to the
// network agent's resumable download, which asks for the rest with Range and If-Range. Without
// resume data (the server sent no validators, or FILE came from somewhere else), a non-empty FILE
// is taken as the first part of the resource: the rest is asked for with "Range: bytes=SIZE-" and
// appended to FILE once it is in (an interrupted run leaves FILE as it was).
#pragma once

#include <cstdint>
#include <string>

#include "platform/foundation/value.h"
#include "platform/net/http_url_response.h"

// FILE.orvel-resume.
std::string orvelResumeDataPath(const std::string& outputPath);

struct OrvelResumePlan {
  enum Kind {
    Fresh,       // nothing to resume from: a new download
    ResumeData,  // downloadTaskWithResumeData(resumeData)
    Range,       // ask for bytes from `offset` on and append them to the output file
  };
  Kind kind = Fresh;
  ZRBValue resumeData;
  std::uint64_t offset = 0;
};

// What -C does for this output file, looking at the resume data and the file as they are now.
OrvelResumePlan orvelPlanResume(const std::string& outputPath);

// Keeps resume data (a data value, or any property list) beside the output, replacing older data.
// False when there is nothing to keep or the file cannot be written.
bool orvelSaveResumeData(const std::string& outputPath, const ZRBValue& resumeData);
// Removes stale resume data after a download has finished; nothing happens when there is none.
void orvelDiscardResumeData(const std::string& outputPath);

// "bytes=OFFSET-".
std::string orvelRangeHeaderValue(std::uint64_t offset);

// What the answer's status means for this run: a Range resume takes only the rest of its file (206
// from its size) or the whole resource anew (200), and a 416 for exactly its size says it is
// complete; a resume from resume data takes only 2xx; -f refuses 400 and above.
enum class OrvelStatusVerdict { Take, Refuse, AlreadyComplete };
OrvelStatusVerdict orvelJudgeStatus(const ZRBHTTPURLResponse& response, const OrvelResumePlan& plan,
                                    bool failOnHTTPError);
