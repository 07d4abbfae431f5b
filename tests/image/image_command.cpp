// Running flashfs-image for tests.
#include "tests/image/image_command.h"

#include <algorithm>
#include <filesystem>

#include "image/finding.h"
#include "tests/image/json_schema.h"
#include "tests/support/stored_image.h"

namespace test_support {

using json = nlohmann::ordered_json;

const json& published_schema() {
  static const json schema =
      json::parse(read_whole_file(TESTS_FOLDER "/../docs/flashfs-image.schema.json"));
  return schema;
}

image_command::image_command() {
  environment_["SOURCE_DATE_EPOCH"] = "1700000000";
}

program_result image_command::run(const std::vector<std::string>& words) const {
  return run_program({.path = program_,
                      .arguments = words,
                      .environment = environment_,
                      .folder = folder_.path()});
}

std::string image_command::output_of(const std::vector<std::string>& words, int status) const {
  const program_result result = run(words);
  EXPECT_EQ(result.status, status) << testing::PrintToString(words) << "\n" << result.err;
  return result.out;
}

json image_command::document_of(std::vector<std::string> words, int status) const {
  words.insert(words.begin(), "--json");
  const program_result result = run(words);
  EXPECT_EQ(result.status, status) << testing::PrintToString(words) << "\n" << result.err;
  json document = json::parse(result.out, nullptr, false);
  if (document.is_discarded()) {
    ADD_FAILURE() << "no document: " << result.out;
    return {};
  }
  EXPECT_EQ(schema_fault(published_schema(), document), "") << result.out;
  EXPECT_EQ(document["status"], status);
  for (const json& one : document["findings"]) {
    EXPECT_NE(image::find_code(std::string(one["code"])), nullptr) << one;
  }
  return document;
}

std::string image_command::transcript(const std::vector<std::vector<std::string>>& calls) const {
  std::string text;
  for (const std::vector<std::string>& words : calls) {
    text += "$ flashfs-image";
    for (const std::string& word : words) {
      text += " " + word;
    }
    const program_result result = run(words);
    text += "\n" + result.out + result.err;
    text += result.status == 0 ? "" : "(status " + std::to_string(result.status) + ")\n";
  }
  return text;
}

std::string image_command::store(const std::string& name) const {
  unpack_stored_image(name, file(name + ".img"));
  return name + ".img";
}

std::string image_command::emulator() {
#ifdef ZANTROLUME_EMULATOR
  return ZANTROLUME_EMULATOR;
#else
  return "";
#endif
}

std::vector<std::string> image_command::names() const {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
    found.push_back(entry.path().filename());
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::vector<std::string> stored_images() {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(TESTS_FOLDER "/images")) {
    if (entry.is_directory()) {
      found.push_back(entry.path().filename());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace test_support
