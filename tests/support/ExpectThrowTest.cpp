#include "ExpectThrow.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include "Failures.h"

namespace {

void Return() {}

template <typename Exception>
void Throw(const Exception& exception) {
  throw exception;
}

std::system_error SystemError(int number, const char* message) {
  return {number, std::system_category(), message};
}

TEST(ExactThrow, WhatShouldBeThrownIsNoFailure) {
  EXPECT_EXACT_THROW(Throw(std::logic_error("text")), std::logic_error, "text");
  EXPECT_EXACT_THROW(Throw(SystemError(EIO, "text")), std::system_error, "text: Input/output error");
}

TEST(ExactThrow, AnotherTextIsShownBesideTheOneThatWasExpected) {
  EXPECT_EQ(FailuresOf([] {
              EXPECT_EXACT_THROW(Throw(std::logic_error("Watchdog is not activated")), std::logic_error,
                                 "Watchdog not activated");
            }),
            "Throw(std::logic_error(\"Watchdog is not activated\")) threw \"Watchdog is not activated\", not "
            "\"Watchdog not activated\"");
}

TEST(ExactThrow, AnotherTypeIsShownWithItsText) {
  const std::runtime_error other("one");
  EXPECT_EQ(FailuresOf([&] { EXPECT_EXACT_THROW(Throw(other), std::logic_error, "two"); }),
            "Throw(other) threw std::runtime_error \"one\", not std::logic_error \"two\"");
}

TEST(ExactThrow, ADerivedTypeIsAnotherOne) {
  const std::out_of_range derived("text");
  EXPECT_EQ(FailuresOf([&] { EXPECT_EXACT_THROW(Throw(derived), std::logic_error, "text"); }),
            "Throw(derived) threw std::out_of_range \"text\", not std::logic_error \"text\"");
}

TEST(ExactThrow, WhatIsNoExceptionOfTheLibraryIsShownByItsType) {
  EXPECT_EQ(FailuresOf([] { EXPECT_EXACT_THROW(Throw(7), std::logic_error, "text"); }),
            "Throw(7) threw int, not std::logic_error \"text\"");
}

TEST(ExactThrow, NothingIsShownAsNothing) {
  EXPECT_EQ(FailuresOf([] { EXPECT_EXACT_THROW(Return(), std::logic_error, "text"); }),
            "Return() threw nothing, not std::logic_error \"text\"");
}

TEST(ExactThrow, ATextOfSeveralLinesIsShownInOne) {
  const std::logic_error lines("one\ntwo\n");
  EXPECT_EQ(FailuresOf([&] { EXPECT_EXACT_THROW(Throw(lines), std::logic_error, ""); }),
            "Throw(lines) threw \"one\\ntwo\\n\", not \"\"");
}

TEST(SystemErrorThrow, WhatShouldBeThrownIsNoFailure) {
  EXPECT_SYSTEM_ERROR(Throw(SystemError(EIO, "text")), EIO, "text");
  EXPECT_SYSTEM_ERROR(Throw(SystemError(0, "text")), 0, "text");
}

TEST(SystemErrorThrow, AnotherNumberShowsInTheText) {
  const std::system_error other = SystemError(ENXIO, "text");
  EXPECT_EQ(FailuresOf([&] { EXPECT_SYSTEM_ERROR(Throw(other), EIO, "text"); }),
            "Throw(other) threw \"text: No such device or address\", not \"text: Input/output error\"");
}

TEST(SystemErrorThrow, AnotherCodeBehindTheSameTextIsNamed) {
  class Category : public std::error_category {
   public:
    const char* name() const noexcept override {
      return "other";
    }
    std::string message(int) const override {
      return "Input/output error";
    }
  };
  static const Category category;
  const std::system_error other(5, category, "text");
  EXPECT_EQ(FailuresOf([&] { EXPECT_SYSTEM_ERROR(Throw(other), EIO, "text"); }),
            "Throw(other) threw \"text: Input/output error\" with other:5, not with EIO");
}

TEST(SystemErrorThrow, AnotherTypeAndNothingAreShownWithTheTextThatWasExpected) {
  const std::logic_error other("one");
  EXPECT_EQ(FailuresOf([&] { EXPECT_SYSTEM_ERROR(Throw(other), EIO, "two"); }),
            "Throw(other) threw std::logic_error \"one\", not std::system_error \"two: Input/output error\"");
  EXPECT_EQ(FailuresOf([] { EXPECT_SYSTEM_ERROR(Return(), EIO, "two"); }),
            "Return() threw nothing, not std::system_error \"two: Input/output error\"");
}

TEST(LogicErrorOf, IsItsText) {
  EXPECT_EQ(LogicErrorOf([] { throw std::logic_error("text"); }), "text");
}

TEST(LogicErrorOf, AnotherTypeAndNothingAreShown) {
  EXPECT_EQ(FailuresOf([] { LogicErrorOf([] { throw std::out_of_range("text"); }); }),
            "Failed\nthrew std::out_of_range \"text\", not a std::logic_error");
  EXPECT_EQ(FailuresOf([] { EXPECT_EQ(LogicErrorOf(Return), ""); }), "Failed\nthrew nothing, not a std::logic_error");
}

TEST(ErrorNames, AreTheirMacrosAndOtherwiseNumbers) {
  EXPECT_EQ(ErrorName(EIO), "EIO");
  EXPECT_EQ(ErrorName(0), "errno 0");
  EXPECT_EQ(ErrorName(4711), "errno 4711");
}

}  // namespace
