// Tests of flashfs-image by running it: a folder of its own with images in it, calls whose words
// name files there, transcripts for golden files, and the documents of --json, each of which is
// held against the published schema.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/run_program.h"

namespace test_support {

class image_command : public testing::Test {
 protected:
  image_command();

  // Runs the program in the folder. Dates of today are 1700000000 at most.
  program_result run(const std::vector<std::string>& words) const;
  // Runs it and returns what it printed; the status is expected.
  std::string output_of(const std::vector<std::string>& words, int status = 0) const;
  // Runs it with --json: the document, valid and with this status.
  nlohmann::ordered_json document_of(std::vector<std::string> words, int status) const;
  // "$ flashfs-image WORDS", standard output, standard error, the status, for golden files.
  std::string transcript(const std::vector<std::vector<std::string>>& calls) const;

  // Unpacks a stored image into the folder, as NAME.img; its path.
  std::string store(const std::string& name) const;
  std::string file(const std::string& name) const {
    return folder_.file(name);
  }
  std::string contents(const std::string& name) const {
    return read_whole_file(file(name));
  }
  // What a shell writes before the program's name to run it: nothing, or the emulator.
  static std::string emulator();
  // The names in the folder, to show that nothing was left behind.
  std::vector<std::string> names() const;

  std::map<std::string, std::string> environment_;
  std::string program_ = FLASHFS_IMAGE_PROGRAM;

 private:
  temporary_folder folder_;
};

// The form of the documents, as docs/ has it.
const nlohmann::ordered_json& published_schema();

// The stored images' names.
std::vector<std::string> stored_images();

}  // namespace test_support
