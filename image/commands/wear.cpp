// wear: how often each block has been erased, and its state. Only the headers are looked at.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "flashfs/format.h"
#include "image/commands/commands.h"
#include "image/erase_counts.h"
#include "image/record_decode.h"
#include "image/session.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

struct wear_options {
  std::string image;
};

struct worn_block {
  header_verdict verdict;
  uint8_t state;
  std::optional<uint32_t> erases;  // nothing: its header does not tell
};

worn_block read_block(const opened_image& opened, uint32_t offset, uint32_t number) {
  flashfs_blkheader header;
  if (!opened.read(offset, {reinterpret_cast<uint8_t*>(&header), sizeof(header)})) {
    return {header_verdict::missing, 0, std::nullopt};
  }
  const header_verdict verdict = judge_header(header, number);
  const bool tells = verdict == header_verdict::good;
  return {verdict, blkheader_state(&header),
          tells ? std::optional<uint32_t>(header.erase_count) : std::nullopt};
}

erase_counts sum_of(const std::vector<worn_block>& blocks) {
  erase_counts sum;
  for (uint32_t number = 0; number < blocks.size(); ++number) {
    if (blocks[number].erases) {
      sum.add(number, *blocks[number].erases);
    }
  }
  return sum;
}

// The state in a word, and in the sign behind the count.
std::string state_word(const worn_block& block) {
  switch (block.verdict) {
    case header_verdict::good:
      return state_text(block.state);
    case header_verdict::erased:
      return "without a header";
    default:
      return "with a damaged header";
  }
}

char state_sign(const worn_block& block) {
  if (block.verdict != header_verdict::good) {
    return block.verdict == header_verdict::erased ? '-' : '!';
  }
  switch (block.state) {
    case block_in_use:
      return ' ';
    case block_available:
      return '+';
    default:
      return '*';
  }
}

class wear_table {
 public:
  wear_table(const std::vector<worn_block>& blocks, report& out)
      : blocks_(blocks), sum_(sum_of(blocks)), out_(out) {}

  void tell(uint32_t other_blocks) {
    tell_rows();
    std::map<std::string, uint32_t> states;
    for (const worn_block& block : blocks_) {
      states[state_word(block)]++;
    }
    std::string counted;
    for (const auto& [state, count] : states) {
      counted += fmt::format("{}{} {}", counted.empty() ? "" : ", ", count, state);
    }
    line("states", counted);
    if (other_blocks != 0) {
      line("others", fmt::format("{} blocks are not the file system's", other_blocks));
    }
    line("erases", fmt::format("{} in {} blocks, {:.1f} on average", sum_.total(), sum_.blocks(),
                               sum_.mean()));
    line("spread", fmt::format("from {} to {}, standard deviation {:.1f}", sum_.least(),
                               sum_.most(), sum_.deviation()));
    line("most worn", sum_.blocks() == 0
                          ? "no header tells"
                          : fmt::format("block {}, {} erases", sum_.most_worn(), sum_.most()));
    fill_document(other_blocks);
  }

 private:
  void line(const char* name, const std::string& value) {
    out_.print(fmt::format("{:<10} {}\n", name, value));
  }

  // In the colour of how it stands between the least worn and the most worn.
  color tint(const worn_block& block) const {
    if (block.verdict != header_verdict::good) {
      return block.verdict == header_verdict::erased ? color::none : color::red;
    }
    if (sum_.most() == sum_.least()) {
      return color::none;
    }
    const uint64_t tenths =
        uint64_t{*block.erases - sum_.least()} * 10 / (sum_.most() - sum_.least());
    return tenths >= 9 ? color::red : tenths >= 6 ? color::yellow : color::none;
  }

  void tell_rows() {
    constexpr size_t line_width = 80;
    constexpr uint32_t cells = 16;
    const size_t width = std::max<size_t>(2, std::to_string(sum_.most()).size());
    const size_t label = 6;
    const uint32_t in_row = label + cells * (width + 2) > line_width ? cells / 2 : cells;
    out_.print("block");
    for (uint32_t i = 0; i < in_row; ++i) {
      out_.print(fmt::format(" {:>{}} ", i, width));
    }
    out_.print("\n");
    for (uint32_t number = 0; number < blocks_.size(); ++number) {
      const worn_block& block = blocks_[number];
      if (number % in_row == 0) {
        out_.print(fmt::format("{:>5}", number));
      }
      const std::string count = block.erases ? std::to_string(*block.erases) : "?";
      out_.print(" " + out_.colored(tint(block),
                                    fmt::format("{:>{}}{}", count, width, state_sign(block))));
      if (number % in_row == in_row - 1 || number + 1 == blocks_.size()) {
        out_.print("\n");
      }
    }
    out_.print("+ available, * within a reclamation, - without a header, ! damaged header\n\n");
  }

  void fill_document(uint32_t other_blocks) {
    json rows = json::array();
    for (uint32_t number = 0; number < blocks_.size(); ++number) {
      const worn_block& block = blocks_[number];
      rows.push_back({{"block", number},
                      {"header", verdict_text(block.verdict)},
                      {"state", block.erases ? json(state_text(block.state)) : json(nullptr)},
                      {"erase_count", block.erases ? json(*block.erases) : json(nullptr)}});
    }
    out_.result() = {{"blocks", rows},
                     {"other_blocks", other_blocks},
                     {"counted", sum_.blocks()},
                     {"total", sum_.total()},
                     {"mean", sum_.mean()},
                     {"deviation", sum_.deviation()},
                     {"least", sum_.least()},
                     {"most", sum_.most()},
                     {"most_worn", sum_.blocks() == 0 ? json(nullptr) : json(sum_.most_worn())}};
  }

  const std::vector<worn_block>& blocks_;
  const erase_counts sum_;
  report& out_;
};

void warn_of_damage(const std::vector<worn_block>& blocks, const std::string& name, report& out) {
  const auto damaged = std::count_if(blocks.begin(), blocks.end(), [](const worn_block& block) {
    return block.verdict != header_verdict::good && block.verdict != header_verdict::erased;
  });
  if (damaged != 0) {
    out.warn(codes::would_repair,
             fmt::format("{} of its block headers {} damaged; \"flashfs-image check\" tells what a "
                         "check makes of that",
                         damaged, damaged == 1 ? "is" : "are"),
             name);
  }
}

void run(const wear_options& options, const globals& all, report& out) {
  const std::optional<opened_image> opened =
      open_image(all, options.image, flash_file::access::read, out);
  if (!opened) {
    return;
  }
  std::vector<worn_block> blocks;
  const std::vector<flash_block_info> table = block_table(opened->layout);
  for (const flash_block_info& place : table) {
    if (place.skip == 0) {
      blocks.push_back(read_block(*opened, place.offset, static_cast<uint32_t>(blocks.size())));
    }
  }
  wear_table(blocks, out).tell(static_cast<uint32_t>(table.size() - blocks.size()));
  warn_of_damage(blocks, opened->name, out);
}

}  // namespace

command wear_command() {
  auto options = std::make_shared<wear_options>();
  return {"wear", "Tells how often each block was erased", "flashfs-image wear boot.img",
          [options](arguments& take) { take.image(&options->image); },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
