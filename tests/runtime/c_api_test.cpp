// Runs the C99 client in c_api_check.c.
#include <gtest/gtest.h>

extern "C" int kestrel_c_api_check(void);

TEST(CApi, C99ClientDrivesTheFrame) { EXPECT_EQ(kestrel_c_api_check(), 0); }
