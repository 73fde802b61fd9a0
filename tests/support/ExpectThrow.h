#ifndef BOARDKIT_TESTS_EXPECTTHROW_H
#define BOARDKIT_TESTS_EXPECTTHROW_H

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <system_error>
#include <typeinfo>

#include <gtest/gtest.h>

// Assertions that say in one line what was thrown and what should have been:
//
//     dog.Feed() threw "Watchdog is not activated", not "Watchdog not activated"

/// Expects an exception of exactly the type @p Type (no derived one) whose whole what() is @p text.
#define EXPECT_EXACT_THROW(statement, Type, text) \
  EXPECT_PRED_FORMAT1((ExpectedThrow{#statement, typeid(Type), text}), BOARDKIT_THROWN_BY(statement))

/// Expects a std::system_error with the number @p number whose whole what() is @p message, ": " and the number's text.
#define EXPECT_SYSTEM_ERROR(statement, number, message) \
  EXPECT_PRED_FORMAT1((ExpectedThrow{#statement, number, message}), BOARDKIT_THROWN_BY(statement))

#define BOARDKIT_THROWN_BY(statement) \
  [&] {                               \
    try {                             \
      static_cast<void>(statement);   \
    } catch (...) {                   \
      return Thrown::Current();       \
    }                                 \
    return Thrown::Nothing();         \
  }()

/// The whole what() of what @p action throws, where that is in somebody else's words; it must be exactly a
/// std::logic_error.
std::string LogicErrorOf(const std::function<void()>& action);

/// The name of the error number @p number: "EIO".
std::string ErrorName(int number);

/// What a statement threw.
struct Thrown {
  static Thrown Nothing();
  static Thrown Current();  ///< what is being handled

  const std::type_info* type = nullptr;  ///< null for nothing
  std::optional<std::string> text;       ///< what(), if it has that
  std::optional<std::error_code> code;   ///< that of a std::system_error
};

/// Its type and its text.
std::ostream& operator<<(std::ostream& stream, const Thrown& thrown);

/// What a statement should throw: a predicate formatter.
class ExpectedThrow {
 public:
  ExpectedThrow(const char* statement, const std::type_info& type, const std::string& text);
  /// A std::system_error.
  ExpectedThrow(const char* statement, int number, const std::string& message);

  testing::AssertionResult operator()(const char* /*unused*/, const Thrown& thrown) const;

 private:
  const char* m_statement;
  Thrown m_expected;
};

#endif
