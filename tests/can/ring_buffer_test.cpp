// The bounded queue shared by every receive path.
#include <gtest/gtest.h>

#include <vector>

#include "device/ring_buffer.hpp"

namespace veltrix {
namespace {

TEST(RingBuffer, DropsOldestAndDrainsAcrossTheWrap) {
  RingBuffer<int> r(4);
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(r.push(i));
  EXPECT_TRUE(r.push(4));
  EXPECT_TRUE(r.push(5));
  EXPECT_EQ(r.size(), 4u);
  EXPECT_EQ(r.dropped(), 2u);
  EXPECT_EQ(*r.peek(), 2);
  int v = -1;
  ASSERT_TRUE(r.pop(v));
  EXPECT_EQ(v, 2);
  std::vector<int> out(2);
  ASSERT_EQ(r.drain(out), 2u);  // 3, 4: the stored run crosses the end of the storage
  EXPECT_EQ(out, (std::vector<int>{3, 4}));
  r.push(6);
  r.push(7);
  std::vector<int> all(10, -1);
  ASSERT_EQ(r.drain(all), 3u);
  EXPECT_EQ(std::vector<int>(all.begin(), all.begin() + 4), (std::vector<int>{5, 6, 7, -1}));
  EXPECT_FALSE(r.pop(v));
  EXPECT_EQ(r.peek(), nullptr);
}

TEST(RingBuffer, ZeroCapacityKeepsNothingAndClearKeepsCounting) {
  RingBuffer<int> none(0);
  EXPECT_TRUE(none.push(1));
  EXPECT_EQ(none.size(), 0u);
  EXPECT_EQ(none.dropped(), 1u);
  std::vector<int> out(3);
  EXPECT_EQ(none.drain(out), 0u);

  RingBuffer<int> r(3);
  EXPECT_EQ(r.push_all(std::vector<int>{1, 2, 3, 4, 5}), 2u);
  r.release();
  EXPECT_TRUE(r.empty());
  r.push(9);
  ASSERT_TRUE(r.pop(out[0]));
  EXPECT_EQ(out[0], 9);
  EXPECT_EQ(r.dropped(), 2u);
}

}  // namespace
}  // namespace veltrix
