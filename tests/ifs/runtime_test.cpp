// The stand-ins for the embedded system's kernel, and the program's own memset and strtok.
#include "ifs/runtime.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "ifs/interrupt.h"

namespace {

static_assert(sizeof(boolean) == 4);
static_assert(sizeof(watched_semaphore) == 4);
static_assert(sizeof(watched_boolean) == 4);
static_assert(sizeof(chunk_pool) == 4);

TEST(chunk_pool, keeps_its_element_size_and_ignores_the_count) {
  chunk_pool* pool = chunk_create(12, 0);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->element_size, 12u);
  EXPECT_EQ(chunk_destroy(pool), 1);
}

TEST(chunk_pool, gives_more_elements_than_the_count_and_each_is_its_own) {
  chunk_pool* pool = chunk_create(12, 1);
  void* first = chunk_malloc(pool);
  void* second = chunk_malloc(pool);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  std::memset(first, 0x11, 12);
  std::memset(second, 0x22, 12);
  EXPECT_EQ(static_cast<unsigned char*>(first)[11], 0x11);
  EXPECT_EQ(static_cast<unsigned char*>(second)[0], 0x22);
  chunk_free(pool, first);
  chunk_free(pool, second);
  chunk_destroy(pool);
}

TEST(chunk_pool, an_element_outlives_the_handle) {
  chunk_pool* pool = chunk_create(8, 4);
  void* element = chunk_malloc(pool);
  EXPECT_EQ(chunk_destroy(pool), 1);
  std::memset(element, 0x33, 8);
  EXPECT_EQ(static_cast<unsigned char*>(element)[7], 0x33);
  chunk_free(nullptr, element);
}

TEST(watched_boolean, is_zero_at_first_and_holds_32_bits) {
  watched_boolean* cell = create_watched_boolean();
  ASSERT_NE(cell, nullptr);
  EXPECT_EQ(process_get_boolean(cell), 0u);
  process_set_boolean(cell, 0x89ABCDEF);
  EXPECT_EQ(process_get_boolean(cell), 0x89ABCDEFu);
  process_watch_boolean(cell);
  EXPECT_EQ(process_get_boolean(cell), 0x89ABCDEFu);
  delete_watched_boolean(&cell);
}

TEST(watched_boolean, deleting_leaves_the_handle_null) {
  watched_boolean* cell = create_watched_boolean();
  delete_watched_boolean(&cell);
  EXPECT_EQ(cell, nullptr);
}

TEST(watched_semaphore, is_zero_at_first_and_deleting_leaves_the_handle_null) {
  watched_semaphore* semaphore = create_watched_semaphore("name");
  ASSERT_NE(semaphore, nullptr);
  EXPECT_EQ(semaphore->cell, 0u);
  delete_watched_semaphore(&semaphore);
  EXPECT_EQ(semaphore, nullptr);
}

TEST(watched_semaphore, needs_no_name) {
  watched_semaphore* semaphore = create_watched_semaphore(nullptr);
  ASSERT_NE(semaphore, nullptr);
  delete_watched_semaphore(&semaphore);
}

TEST(watched_semaphore, is_obtained_at_once_every_time) {
  watched_semaphore* semaphore = create_watched_semaphore("lock");
  EXPECT_EQ(process_lock_semaphore(semaphore), 1);
  EXPECT_EQ(process_lock_semaphore(semaphore), 1);
  process_unlock_semaphore(semaphore);
  EXPECT_EQ(process_lock_semaphore(semaphore), 1);
  delete_watched_semaphore(&semaphore);
}

TEST(process, scheduling_points_return_at_once) {
  const auto start = std::chrono::steady_clock::now();
  process_wait_for_event();
  process_sleep_periodic();
  process_suspend();
  process_may_suspend();
  process_sleep_for(3'600'000);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::minutes(1));
}

TEST(process, never_exceeds_its_time_and_is_never_interrupted) {
  EXPECT_EQ(process_time_exceeded(), 0);
  EXPECT_EQ(intr_req(), 0);
}

TEST(crashpoint, ends_the_process_with_status_1) {
  EXPECT_EXIT(crashpoint(), testing::ExitedWithCode(1), "");
}

TEST(crashpoint, the_messages_before_it_come_out) {
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        printf("the last words");
        crashpoint();
      },
      testing::ExitedWithCode(1), "the last words");
}

TEST(own_memset, fills_the_bytes_and_nothing_else) {
  char buffer[] = "abcdef";
  EXPECT_EQ(ifs_runtime::memset(buffer + 1, 'x', 3), buffer + 1);
  EXPECT_STREQ(buffer, "axxxef");
}

TEST(own_memset, takes_the_low_byte_of_the_value) {
  unsigned char byte = 0;
  ifs_runtime::memset(&byte, 0x1FF, 1);
  EXPECT_EQ(byte, 0xFF);
}

TEST(own_memset, length_0_touches_nothing) {
  EXPECT_EQ(ifs_runtime::memset(nullptr, 1, 0), nullptr);
  char byte = 'a';
  EXPECT_EQ(ifs_runtime::memset(&byte, 'x', 0), &byte);
  EXPECT_EQ(byte, 'a');
}

TEST(own_strtok, leading_and_repeated_delimiters_make_no_tokens) {
  char text[] = ",,a,,b";
  EXPECT_STREQ(ifs_runtime::strtok(text, ","), "a");
  EXPECT_STREQ(ifs_runtime::strtok(nullptr, ","), "b");
  EXPECT_EQ(ifs_runtime::strtok(nullptr, ","), nullptr);
  EXPECT_EQ(ifs_runtime::strtok(nullptr, ","), nullptr);
}

TEST(own_strtok, cuts_the_string_at_one_delimiter_and_goes_on_behind_it) {
  char text[] = "ab//c";
  EXPECT_EQ(ifs_runtime::strtok(text, "/"), text);
  EXPECT_EQ(std::string(text, sizeof(text)), std::string("ab\0/c\0", 6));
  EXPECT_EQ(ifs_runtime::strtok(nullptr, "/"), text + 4);
}

TEST(own_strtok, trailing_delimiters_end_the_tokens) {
  char text[] = "a,,";
  EXPECT_STREQ(ifs_runtime::strtok(text, ","), "a");
  EXPECT_EQ(ifs_runtime::strtok(nullptr, ","), nullptr);
}

TEST(own_strtok, a_string_without_tokens_forgets_the_one_before) {
  char text[] = "a,b";
  char delimiters[] = ",,";
  char empty[] = "";
  ifs_runtime::strtok(text, ",");
  EXPECT_EQ(ifs_runtime::strtok(delimiters, ","), nullptr);
  EXPECT_EQ(ifs_runtime::strtok(nullptr, ","), nullptr);
  EXPECT_EQ(ifs_runtime::strtok(empty, ","), nullptr);
}

TEST(own_strtok, the_delimiters_may_change_between_calls) {
  char text[] = "a,b;c,d";
  EXPECT_STREQ(ifs_runtime::strtok(text, ","), "a");
  EXPECT_STREQ(ifs_runtime::strtok(nullptr, ";"), "b");
  EXPECT_STREQ(ifs_runtime::strtok(nullptr, ";,"), "c");
  EXPECT_STREQ(ifs_runtime::strtok(nullptr, ";,"), "d");
}

TEST(own_strtok, without_delimiters_the_rest_is_one_token) {
  char text[] = "a,b c";
  EXPECT_STREQ(ifs_runtime::strtok(text, ","), "a");
  EXPECT_STREQ(ifs_runtime::strtok(nullptr, ""), "b c");
  EXPECT_EQ(ifs_runtime::strtok(nullptr, ""), nullptr);
}

TEST(own_strtok, a_new_string_replaces_the_one_before) {
  char first[] = "a,b";
  char second[] = "c,d";
  ifs_runtime::strtok(first, ",");
  EXPECT_STREQ(ifs_runtime::strtok(second, ","), "c");
  EXPECT_STREQ(ifs_runtime::strtok(nullptr, ","), "d");
}

TEST(own_strtok, is_apart_from_the_c_librarys) {
  char ours[] = "a,b";
  char theirs[] = "c,d";
  EXPECT_STREQ(ifs_runtime::strtok(ours, ","), "a");
  EXPECT_STREQ(::strtok(theirs, ","), "c");
  EXPECT_STREQ(ifs_runtime::strtok(nullptr, ","), "b");
  EXPECT_STREQ(::strtok(nullptr, ","), "d");
}

}  // namespace
