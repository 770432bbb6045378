#include "get_resume.h"

#include <charconv>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include "platform/foundation/property_list_serialization.h"
#include "platform/system/file_manager.h"

namespace {

// The N of "bytes */N" or "bytes A-B/N"; nullopt when the value is not one of those.
std::optional<std::uint64_t> completeLength(const std::optional<std::string>& contentRange) {
  if (!contentRange) return std::nullopt;
  auto slash = contentRange->rfind('/');
  if (slash == std::string::npos) return std::nullopt;
  std::uint64_t length = 0;
  const char* begin = contentRange->data() + slash + 1;
  const char* end = contentRange->data() + contentRange->size();
  auto [at, failure] = std::from_chars(begin, end, length);
  if (failure != std::errc() || at != end) return std::nullopt;
  return length;
}

// The A of "bytes A-B/N".
std::optional<std::uint64_t> rangeStart(const std::optional<std::string>& contentRange) {
  if (!contentRange || !contentRange->starts_with("bytes ")) return std::nullopt;
  std::uint64_t start = 0;
  const char* begin = contentRange->data() + 6;
  auto [at, failure] = std::from_chars(begin, contentRange->data() + contentRange->size(), start);
  if (failure != std::errc() || at == begin || *at != '-') return std::nullopt;
  return start;
}

}  // namespace

std::string orvelResumeDataPath(const std::string& outputPath) { return outputPath + ".orvel-resume"; }

OrvelResumePlan orvelPlanResume(const std::string& outputPath) {
  OrvelResumePlan plan;
  auto bytes = ZRBFileManager::defaultManager()->contentsAtPath(orvelResumeDataPath(outputPath));
  if (bytes && !bytes->empty()) {
    plan.kind = OrvelResumePlan::ResumeData;
    plan.resumeData = ZRBValue::data(std::move(*bytes));
    return plan;
  }
  std::error_code error;
  auto size = std::filesystem::file_size(outputPath, error);
  if (!error && size > 0 && std::filesystem::is_regular_file(outputPath, error)) {
    plan.kind = OrvelResumePlan::Range;
    plan.offset = size;
  }
  return plan;
}

bool orvelSaveResumeData(const std::string& outputPath, const ZRBValue& resumeData) {
  std::vector<std::uint8_t> bytes;
  if (resumeData.isData()) {
    auto view = resumeData.bytes();
    bytes.assign(view.begin(), view.end());
  } else if (!resumeData.isNothing()) {
    auto encoded =
        ZRBPropertyListSerialization::dataWithPropertyList(resumeData, ZRBPropertyListBinaryFormat_v1_0);
    if (encoded) bytes = std::move(*encoded);
  }
  if (bytes.empty()) return false;
  // Atomically, so an interruption never leaves half of it behind.
  return ZRBFileManager::defaultManager()->writeData(bytes, orvelResumeDataPath(outputPath), true);
}

void orvelDiscardResumeData(const std::string& outputPath) {
  std::error_code ignored;
  std::filesystem::remove(orvelResumeDataPath(outputPath), ignored);
}

std::string orvelRangeHeaderValue(std::uint64_t offset) { return "bytes=" + std::to_string(offset) + "-"; }

OrvelStatusVerdict orvelJudgeStatus(const ZRBHTTPURLResponse& response, const OrvelResumePlan& plan,
                                    bool failOnHTTPError) {
  long status = response.statusCode();
  if (plan.kind == OrvelResumePlan::Range) {
    auto contentRange = response.valueForHTTPHeaderField("Content-Range");
    if (status == 200 || (status == 206 && rangeStart(contentRange) == plan.offset))
      return OrvelStatusVerdict::Take;
    return status == 416 && completeLength(contentRange) == plan.offset ? OrvelStatusVerdict::AlreadyComplete
                                                                        : OrvelStatusVerdict::Refuse;
  }
  bool refused = (plan.kind == OrvelResumePlan::ResumeData && (status < 200 || status >= 300)) ||
                 (failOnHTTPError && status >= 400);
  return refused ? OrvelStatusVerdict::Refuse : OrvelStatusVerdict::Take;
}
