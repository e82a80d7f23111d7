#include <gtest/gtest.h>
#include "Zorvek/Dal.h"
TEST(Smoke, Builds) { EXPECT_TRUE(true); }
