// explain, as people run it, against the table that it is made of.
#include <gtest/gtest.h>

#include "image/finding.h"
#include "tests/image/image_command.h"

namespace {

using json = nlohmann::ordered_json;
class explain : public test_support::image_command {};

}  // namespace

TEST_F(explain, tells_what_a_code_means) {
  EXPECT_EQ(
      output_of({"explain", "sector-checksum", "orphan"}),
      "sector-checksum  error    a sector's checksum does not fit\n"
      "                          to do: \"rescue\" puts back what stood there, where that can "
      "be told; a check drops it\n"
      "orphan           warning  no directory names what owns sectors or slots\n"
      "                          to do: \"rescue\" gives it its last name back; a check names "
      "it in /lost+found\n");
}

TEST_F(explain, tells_of_all_codes) {
  const json document = document_of({"explain"}, 0);
  const std::string text = output_of({"explain"});
  ASSERT_EQ(document["result"]["codes"].size(), image::finding_codes().size());
  size_t number = 0;
  for (const image::finding_code& row : image::finding_codes()) {
    const json& told = document["result"]["codes"][number++];
    EXPECT_EQ(told["code"], row.code);
    EXPECT_EQ(told["severity"], image::severity_text(row.severity));
    EXPECT_EQ(told["meaning"], row.meaning);
    EXPECT_EQ(told["what_to_do"], row.what_to_do);
    EXPECT_NE(text.find(std::string(row.meaning) + "\n"), std::string::npos) << row.code;
    EXPECT_NE(text.find(std::string(row.what_to_do) + "\n"), std::string::npos) << row.code;
  }
}

TEST_F(explain, tells_of_a_code_that_there_is_not) {
  const json document = document_of({"explain", "orphan", "no\nsuch"}, 8);
  EXPECT_EQ(document["result"]["codes"].size(), 1U);
  EXPECT_EQ(run({"explain", "no\nsuch"}).err,
            "flashfs-image: error: no finding has the code \"no\\nsuch\"; without one all are "
            "listed\n");
}
