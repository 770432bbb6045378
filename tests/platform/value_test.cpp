#include "platform/value.h"

#include <gtest/gtest.h>

TEST(ValueTest, Smoke) { EXPECT_EQ(ZRBValue(1).description(), "1"); }
