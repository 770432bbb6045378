#include "get_resume.h"

#include <filesystem>
#include <system_error>
#include <vector>

#include "platform/foundation/property_list_serialization.h"
#include "platform/system/file_manager.h"

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
