#include <gtest/gtest.h>

#include <optional>

#include "config/DeflaterPool.h"

namespace corvid {
namespace {

TEST(DeflaterPool, StartsEmpty) {
  DeflaterPool pool;
  EXPECT_EQ(pool.idleCount(), 0u);
}

TEST(DeflaterPool, HandsTheReturnedStreamToTheNextCaller) {
  DeflaterPool pool;
  const Deflater* first = nullptr;
  {
    const auto lease = pool.take();
    first = &*lease;
    EXPECT_EQ(pool.idleCount(), 0u);
  }
  EXPECT_EQ(pool.idleCount(), 1u);
  const auto lease = pool.take();
  EXPECT_EQ(&*lease, first);
}

TEST(DeflaterPool, NeverSharesAStreamBetweenCallers) {
  DeflaterPool pool;
  const auto first = pool.take();
  const auto second = pool.take();
  EXPECT_NE(&*first, &*second);
}

TEST(DeflaterPool, KeepsNoMoreThanItsCapacity) {
  DeflaterPool pool;
  {
    const auto first = pool.take();
    const auto second = pool.take();
    const auto third = pool.take();
    static_assert(DeflaterPool::capacity == 2);
  }
  EXPECT_EQ(pool.idleCount(), DeflaterPool::capacity);
}

}  // namespace
}  // namespace corvid
