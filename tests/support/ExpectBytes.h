#ifndef BOARDKIT_TESTS_EXPECTBYTES_H
#define BOARDKIT_TESTS_EXPECTBYTES_H

#include <cstddef>
#include <string>

#include <gtest/gtest.h>

/// Expects that @p bytes are @p expected, and shows where they begin to differ: for more bytes than one wants to read.
#define EXPECT_SAME_BYTES(bytes, expected) EXPECT_PRED_FORMAT2(SameBytes, bytes, expected)

/// Bytes in an order that shows what is lost or doubled.
std::string Pattern(std::size_t length);

testing::AssertionResult SameBytes(const char* bytesText, const char* expectedText, const std::string& bytes,
                                   const std::string& expected);

#endif
