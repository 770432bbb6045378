// How `orvel get -C` decides what to resume from, and how resume data is kept beside the output.
#include "orvel/get_resume.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/property_list_serialization.h"
#include "support/test_pki.h"

namespace {

struct TemporaryDirectory {
  std::filesystem::path path = ZRBTestPKI::makeTemporaryDirectory();
  ~TemporaryDirectory() { std::filesystem::remove_all(path); }
};

void writeFile(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(OrvelGetResume, PlanPrefersResumeDataThenAPartialFile) {
  TemporaryDirectory directory;
  auto output = (directory.path / "big.bin").string();
  EXPECT_EQ(orvelResumeDataPath(output), output + ".orvel-resume");

  EXPECT_EQ(orvelPlanResume(output).kind, OrvelResumePlan::Fresh);
  writeFile(output, "");  // an empty file has nothing to keep
  EXPECT_EQ(orvelPlanResume(output).kind, OrvelResumePlan::Fresh);

  writeFile(output, std::string(1000, 'x'));
  auto plan = orvelPlanResume(output);
  EXPECT_EQ(plan.kind, OrvelResumePlan::Range);
  EXPECT_EQ(plan.offset, 1000u);
  EXPECT_EQ(orvelRangeHeaderValue(plan.offset), "bytes=1000-");

  writeFile(orvelResumeDataPath(output), "");  // empty resume data is no resume data
  EXPECT_EQ(orvelPlanResume(output).kind, OrvelResumePlan::Range);

  ASSERT_TRUE(orvelSaveResumeData(output, ZRBValue::data("resume bytes")));
  plan = orvelPlanResume(output);
  EXPECT_EQ(plan.kind, OrvelResumePlan::ResumeData);
  EXPECT_EQ(plan.resumeData, ZRBValue::data("resume bytes"));

  orvelDiscardResumeData(output);
  EXPECT_FALSE(std::filesystem::exists(orvelResumeDataPath(output)));
  EXPECT_EQ(orvelPlanResume(output).kind, OrvelResumePlan::Range);
  orvelDiscardResumeData(output);  // twice is fine
}

TEST(OrvelGetResume, SavingReplacesOldDataAndLeavesNothingHalfWritten) {
  TemporaryDirectory directory;
  auto output = (directory.path / "f").string();
  ASSERT_TRUE(orvelSaveResumeData(output, ZRBValue::data("first")));
  ASSERT_TRUE(orvelSaveResumeData(output, ZRBValue::data("second")));
  EXPECT_EQ(readFile(orvelResumeDataPath(output)), "second");

  // A property list that is not already bytes is kept in its binary form.
  auto dictionary =
      ZRBValue::dictionary({{"URL", ZRBValue("https://localhost/big")}, {"bytes", ZRBValue(42)}});
  ASSERT_TRUE(orvelSaveResumeData(output, dictionary));
  auto bytes = readFile(orvelResumeDataPath(output));
  auto decoded = ZRBPropertyListSerialization::propertyListWithData(
      std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
  EXPECT_EQ(decoded, dictionary);

  // Nothing to keep: the previous data stays.
  EXPECT_FALSE(orvelSaveResumeData(output, ZRBValue()));
  EXPECT_FALSE(orvelSaveResumeData(output, ZRBValue::data("")));
  EXPECT_EQ(readFile(orvelResumeDataPath(output)), bytes);

  // An unwritable place fails without leaving a temporary file.
  auto nowhere = (directory.path / "missing-dir" / "f").string();
  EXPECT_FALSE(orvelSaveResumeData(nowhere, ZRBValue::data("x")));
  std::size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory.path)) ++entries;
  EXPECT_EQ(entries, 1u);  // f.orvel-resume only
}

}  // namespace
