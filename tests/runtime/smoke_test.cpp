#include <gtest/gtest.h>

#include "kestrel/kestrel.h"

TEST(Smoke, InitializeAndTerminate) {
  EXPECT_EQ(DBInitialize(20, 0), 0);
  EXPECT_EQ(DBTerminate(), 0);
}
