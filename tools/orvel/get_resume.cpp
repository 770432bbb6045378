#include "get_resume.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "platform/property_list_serialization.h"

std::string orvelResumeDataPath(const std::string& outputPath) { return outputPath + ".orvel-resume"; }

OrvelResumePlan orvelPlanResume(const std::string& outputPath) {
  OrvelResumePlan plan;
  std::ifstream in(orvelResumeDataPath(outputPath), std::ios::binary);
  if (in) {
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!bytes.empty()) {
      plan.kind = OrvelResumePlan::ResumeData;
      plan.resumeData = ZRBValue::data(std::move(bytes));
      return plan;
    }
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
  // Written beside and renamed into place, so an interruption never leaves half of it behind.
  auto path = orvelResumeDataPath(outputPath);
  auto temporary = path + ".part";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) {
      std::error_code ignored;
      std::filesystem::remove(temporary, ignored);
      return false;
    }
  }
  std::error_code error;
  std::filesystem::rename(temporary, path, error);
  if (!error) return true;
  std::error_code ignored;
  std::filesystem::remove(temporary, ignored);
  return false;
}

void orvelDiscardResumeData(const std::string& outputPath) {
  std::error_code ignored;
  std::filesystem::remove(orvelResumeDataPath(outputPath), ignored);
}

std::string orvelRangeHeaderValue(std::uint64_t offset) { return "bytes=" + std::to_string(offset) + "-"; }
