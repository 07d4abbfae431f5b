// check, over the stored images: what it tells, what it repairs, what it refuses.
#include <gtest/gtest.h>

#include "tests/image/image_command.h"
#include "tests/support/golden.h"

namespace {

using json = nlohmann::ordered_json;

class check_command : public test_support::image_command {};

TEST_F(check_command, tells_what_each_check_would_do_and_changes_nothing) {
  std::string text;
  for (const std::string& name : test_support::stored_images()) {
    const std::string image = store(name);
    const std::string before = contents(image);
    std::string told = transcript({{"check", image}});
    // A blank image has as many lines as blocks.
    constexpr size_t enough = 2000;
    if (told.size() > enough) {
      told = told.substr(0, enough) + "...\n" + told.substr(told.rfind('\n', told.size() - 2) + 1);
    }
    text += told;
    EXPECT_TRUE(contents(image) == before) << name;
    std::remove(file(image).c_str());
  }
  test_support::expect_golden("image_check.txt", text);
}

TEST_F(check_command, repairs_what_it_told) {
  const std::string image = store("orphans");
  const std::string before = contents(image);
  EXPECT_EQ(run({"-n", "check", "--repair", image}).status, 1);
  EXPECT_TRUE(contents(image) == before);
  EXPECT_EQ(run({"check", "--repair", image}).status, 1);
  EXPECT_EQ(run({"check", "--repair", image}).status, 0);
  EXPECT_EQ(output_of({"check", image}), "quick check: nothing to do\nfull check: nothing to do\n");
}

TEST_F(check_command, repairs_into_a_new_image) {
  const std::string image = store("orphans");
  const std::string before = contents(image);
  EXPECT_EQ(run({"-o", "new.img", "check", "--repair", image}).status, 1);
  EXPECT_TRUE(contents(image) == before);
  output_of({"check", "new.img"});
}

TEST_F(check_command, drops_nothing_good_unless_forced) {
  const std::string image = store("gap_in_file");
  const std::string before = contents(image);
  const test_support::program_result refused = run({"check", "--repair", image});
  EXPECT_EQ(refused.status, 4);
  EXPECT_NE(refused.err.find("--force"), std::string::npos) << refused.err;
  EXPECT_TRUE(contents(image) == before);
  EXPECT_EQ(run({"check", "--repair", "--force", image}).status, 1);
  output_of({"check", image});
}

TEST_F(check_command, cannot_mend_everything) {
  const std::string image = store("no_spare");
  const std::string before = contents(image);
  EXPECT_EQ(run({"check", "--repair", "--force", image}).status, 4);
  EXPECT_TRUE(contents(image) == before);
}

TEST_F(check_command, as_a_document) {
  const json sound = document_of({"check", store("basic")}, 0);
  ASSERT_EQ(sound["result"]["checks"].size(), 2U);
  EXPECT_EQ(sound["result"]["checks"][0]["check"], "quick");
  EXPECT_EQ(sound["result"]["checks"][1]["changes"], false);
  const json dropped = document_of({"--full", "check", store("gap_in_file")}, 4);
  ASSERT_EQ(dropped["result"]["checks"].size(), 1U);
  EXPECT_EQ(dropped["result"]["checks"][0]["loses"], true);
  EXPECT_FALSE(dropped["findings"].empty());
  const json quick = document_of({"check", "--quick", "gap_in_file.img"}, 4);
  ASSERT_EQ(quick["result"]["checks"].size(), 1U);
  EXPECT_EQ(quick["result"]["checks"][0]["check"], "quick");
}

}  // namespace
