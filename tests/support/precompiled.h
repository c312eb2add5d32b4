// What nearly every test includes, compiled once for all of them.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>
