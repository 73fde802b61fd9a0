#include "ExpectThrow.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>

namespace {

std::string NameOf(const std::type_info& type) {
  const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, nullptr),
                                                    &std::free);
  return name == nullptr ? type.name() : name.get();
}

std::string NameOf(const std::error_code& code) {
  return code.category() == std::system_category() ? ErrorName(code.value())
                                                   : code.category().name() + (':' + std::to_string(code.value()));
}

}  // namespace

std::string LogicErrorOf(const std::function<void()>& action) {
  const Thrown thrown = BOARDKIT_THROWN_BY(action());
  if (thrown.type == nullptr || *thrown.type != typeid(std::logic_error)) {
    ADD_FAILURE() << "threw " << thrown << ", not a std::logic_error";
  }
  return thrown.text.value_or("");
}

std::string ErrorName(int number) {
  const char* const name = number == 0 ? nullptr : ::strerrorname_np(number);
  return name == nullptr ? "errno " + std::to_string(number) : name;
}

Thrown Thrown::Nothing() {
  return {};
}

Thrown Thrown::Current() {
  try {
    throw;
  } catch (const std::system_error& e) {
    return {&typeid(e), e.what(), e.code()};
  } catch (const std::exception& e) {
    return {&typeid(e), e.what(), {}};
  } catch (...) {
    return {abi::__cxa_current_exception_type(), {}, {}};
  }
}

std::ostream& operator<<(std::ostream& stream, const Thrown& thrown) {
  if (thrown.type == nullptr) {
    return stream << "nothing";
  }
  stream << NameOf(*thrown.type);
  return thrown.text ? stream << ' ' << testing::PrintToString(*thrown.text) : stream;
}

ExpectedThrow::ExpectedThrow(const char* statement, const std::type_info& type, const std::string& text)
    : m_statement(statement), m_expected{&type, text, {}} {}

ExpectedThrow::ExpectedThrow(const char* statement, int number, const std::string& message)
    : m_statement(statement),
      m_expected{&typeid(std::system_error), message + ": " + std::strerror(number),
                 std::error_code(number, std::system_category())} {}

testing::AssertionResult ExpectedThrow::operator()(const char* /*unused*/, const Thrown& thrown) const {
  auto failure = testing::AssertionFailure() << m_statement << " threw ";
  if (thrown.type == nullptr || *thrown.type != *m_expected.type) {
    return failure << thrown << ", not " << m_expected;
  }
  if (thrown.text != m_expected.text) {
    return failure << testing::PrintToString(*thrown.text) << ", not " << testing::PrintToString(*m_expected.text);
  }
  if (m_expected.code && thrown.code != m_expected.code) {
    return failure << testing::PrintToString(*thrown.text) << " with " << NameOf(*thrown.code) << ", not with "
                   << NameOf(*m_expected.code);
  }
  return testing::AssertionSuccess();
}
