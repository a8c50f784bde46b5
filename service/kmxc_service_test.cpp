#include <gtest/gtest.h>
TEST(Kit, Placeholder) {}
