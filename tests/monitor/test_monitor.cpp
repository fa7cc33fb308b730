#include <gtest/gtest.h>
#include "Monitor.hpp"
TEST(Placeholder, Builds) {}
