#ifndef BOARDKIT_TESTS_EXPECTTHROW_H
#define BOARDKIT_TESTS_EXPECTTHROW_H

#include <cstring>
#include <exception>
#include <string>
#include <system_error>
#include <typeinfo>

#include <gtest/gtest.h>

/// Expects an exception of exactly the type @p Type (no derived one) whose whole what() is @p text.
#define EXPECT_EXACT_THROW(statement, Type, text) \
  EXPECT_TRUE(ThrowsExactly<Type>([&] { static_cast<void>(statement); }, text)) << #statement

/// Expects a std::system_error with the number @p number whose whole what() is @p message, ": " and the number's text.
#define EXPECT_SYSTEM_ERROR(statement, number, message) \
  EXPECT_TRUE(ThrowsSystemError([&] { static_cast<void>(statement); }, number, message)) << #statement

template <typename Type, typename Function>
testing::AssertionResult ThrowsExactly(Function function, const std::string& text) {
  try {
    function();
  } catch (const std::exception& e) {
    if (typeid(e) != typeid(Type)) {
      return testing::AssertionFailure() << "threw a " << typeid(e).name() << ", not a " << typeid(Type).name();
    }
    if (e.what() != text) {
      return testing::AssertionFailure() << "threw \"" << e.what() << "\", not \"" << text << '"';
    }
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "threw nothing";
}

template <typename Function>
testing::AssertionResult ThrowsSystemError(Function function, int number, const std::string& message) {
  std::error_code code;
  const auto keepingCode = [&] {
    try {
      function();
    } catch (const std::system_error& e) {
      code = e.code();
      throw;
    }
  };
  auto result = ThrowsExactly<std::system_error>(keepingCode, message + ": " + std::strerror(number));
  if (result && (code.value() != number || code.category() != std::system_category())) {
    return testing::AssertionFailure() << "threw the code " << code << ", not system:" << number;
  }
  return result;
}

#endif
