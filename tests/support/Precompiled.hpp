// What nearly every test includes, precompiled once for all of them: the
// test framework and the standard headers around it. A test still includes
// what it uses; this only makes the compiler read it once.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>
