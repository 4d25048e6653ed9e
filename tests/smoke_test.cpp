#include <gtest/gtest.h>
TEST(Smoke, Nothing) {}
