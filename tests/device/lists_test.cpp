// The intrusive lists shared by the streaming families.
#include <gtest/gtest.h>

#include <cstdlib>

#include "device/cache_list.hpp"
#include "device/thread_list.hpp"

namespace {

cache_list* node(uint32_t count) {
  auto* n = static_cast<cache_list*>(std::calloc(1, sizeof(cache_list)));
  n->count = count;
  n->data = static_cast<uint8_t*>(std::malloc(count ? count : 1));
  return n;
}

TEST(CacheList, IsFirstInFirstOut) {
  data_cache_list l;
  EXPECT_TRUE(l.is_empty());
  EXPECT_EQ(l.post(), nullptr);
  l.add(node(1));
  l.add(node(2));
  l.add(node(3));
  EXPECT_EQ(l.length(), 3);
  cache_list* first = l.post();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->count, 1u);
  std::free(first->data);
  std::free(first);
  l.clear();  // frees the rest; LeakSanitizer checks nothing is lost
  EXPECT_TRUE(l.is_empty());
  EXPECT_EQ(l.length(), 0);
}

TEST(ThreadList, ClearRemovesOnlyMatchingRecords) {
  thread_list_init();
  for (uint32_t ch = 0; ch < 3; ++ch) {
    auto* r = static_cast<thread_list*>(std::calloc(1, sizeof(thread_list)));
    r->handle = 0x51000001;
    r->channel = ch % 2;
    thread_list_add(r);
  }
  EXPECT_EQ(thread_list_length(), 3);
  thread_list_clear(0x51000001, 0);
  EXPECT_EQ(thread_list_length(), 1);
  ASSERT_NE(thread_list_post(0), nullptr);
  EXPECT_EQ(thread_list_post(0)->channel, 1u);
  EXPECT_EQ(thread_list_post(1), nullptr);
  thread_list_del(thread_list_post(0));
  EXPECT_TRUE(thread_list_is_empty());
}

}  // namespace
