// The table of codes, its document, and that no source names a code that is not in it.
#include "image/finding.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>

#include "tests/support/run_program.h"

namespace {

const std::string project = TESTS_FOLDER "/..";

}  // namespace

TEST(finding, the_document_is_made_of_the_table) {
  const std::string path = project + "/docs/flashfs-image-codes.md";
  if (getenv("UPDATE_GOLDEN") != nullptr) {
    test_support::write_whole_file(path, image::finding_codes_document());
  }
  EXPECT_EQ(test_support::read_whole_file(path), image::finding_codes_document());
}

TEST(finding, each_code_stands_once_with_one_line) {
  std::set<std::string> codes;
  for (const image::finding_code& row : image::finding_codes()) {
    EXPECT_TRUE(codes.insert(row.code).second) << row.code;
    EXPECT_TRUE(std::regex_match(row.code, std::regex("[a-z0-9]+(-[a-z0-9]+)*"))) << row.code;
    const std::string meaning = row.meaning;
    EXPECT_FALSE(meaning.empty());
    EXPECT_EQ(meaning.find_first_of("\n|"), std::string::npos);
    const std::string what_to_do = row.what_to_do;
    EXPECT_FALSE(what_to_do.empty());
    EXPECT_EQ(what_to_do.find_first_of("\n|"), std::string::npos);
  }
}

TEST(finding, has_the_severity_of_its_code) {
  EXPECT_EQ(image::make_finding("sector-checksum", "").severity, image::severity::error);
  EXPECT_EQ(image::make_finding("orphan", "").severity, image::severity::warning);
  EXPECT_EQ(image::make_finding("block-tail", "").severity, image::severity::info);
  EXPECT_EQ(image::find_code("no-such-code"), nullptr);
}

TEST(finding, the_sources_name_only_codes_of_the_table) {
  // Those that judge have an `add` of their own for it.
  const std::regex made(R"re(make_finding\(\s*"([a-z0-9-]+)")re");
  const std::regex added(R"re(\b(?:make_finding|add)\(\s*"([a-z0-9-]+)")re");
  int seen = 0;
  for (const auto& each : std::filesystem::recursive_directory_iterator(project + "/image")) {
    if (each.path().extension() != ".cpp") {
      continue;
    }
    const std::string source = test_support::read_whole_file(each.path());
    const std::string name = each.path().stem();
    const bool judges = name == "record_findings" || name == "check_report";
    for (std::sregex_iterator found(source.begin(), source.end(), judges ? added : made), end;
         found != end; ++found) {
      EXPECT_NE(image::find_code((*found)[1].str()), nullptr) << name << ": " << (*found)[1];
      seen++;
    }
  }
  EXPECT_GT(seen, 30);
}

// All words with hyphens that stand in its sources as texts are codes of decisions.
TEST(finding, the_rescue_decides_only_codes_of_the_table) {
  const std::regex code(R"re("([a-z]+(?:-[a-z]+)+)")re");
  std::set<std::string> seen;
  for (const auto& each : std::filesystem::directory_iterator(project + "/image")) {
    if (!each.path().filename().string().starts_with("rescue")) {
      continue;
    }
    const std::string source = test_support::read_whole_file(each.path());
    for (std::sregex_iterator found(source.begin(), source.end(), code), end; found != end;
         ++found) {
      EXPECT_NE(image::find_code((*found)[1].str()), nullptr) << each.path() << ": " << (*found)[1];
      seen.insert((*found)[1]);
    }
  }
  EXPECT_GT(seen.size(), 25U);
}

TEST(finding, each_code_is_named_by_a_source) {
  // All that stands in quotes outside of the table.
  std::set<std::string> named;
  const std::regex quoted(R"re("([a-z0-9]+(-[a-z0-9]+)*)")re");
  for (const auto& each : std::filesystem::recursive_directory_iterator(project + "/image")) {
    if (!each.is_regular_file() || each.path().filename() == "finding.cpp") {
      continue;
    }
    const std::string source = test_support::read_whole_file(each.path());
    for (std::sregex_iterator at(source.begin(), source.end(), quoted), end; at != end; ++at) {
      named.insert((*at)[1]);
    }
  }
  for (const image::finding_code& row : image::finding_codes()) {
    EXPECT_TRUE(named.contains(row.code)) << row.code << " is found by nothing";
  }
}
