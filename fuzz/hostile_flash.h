// The recipe with which an input of the fuzzers of flashes begins: a small flash of good and
// damaged records. Checksums are right where the recipe says so, so that the code behind them is
// reached.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/input_bytes.h"
#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"

// Ids and numbers near which something happens.
uint16_t interesting_word(input_bytes& input);
// Names that are there, that cannot be, and any bytes.
std::string interesting_name(input_bytes& input);

// The blocks; some have no room for a sector.
std::vector<test_support::ram_block> hostile_geometry(input_bytes& input);
// Headers and records on the blank flash.
void hostile_records(input_bytes& input, test_support::image_builder& image);
