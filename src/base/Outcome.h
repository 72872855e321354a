#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <variant>

namespace harbex
{

/// The errno value of a failed system call.
struct SystemError {
    int code = 0;

    /// Returns the message text, for example "No such file or directory".
    [[nodiscard]] std::string description() const { return std::generic_category().message(code); }

    /// Returns the current errno. Call immediately after the failed call, before errno changes.
    [[nodiscard]] static SystemError last() { return {errno}; }

    friend bool operator==(const SystemError&, const SystemError&) = default;
};

/// The result of a call that can fail: a value or an error. Reading the one that is not present is a
/// programming error: it throws an exception that no code catches.
template <class Value, class Error = SystemError>
class [[nodiscard]] Outcome
{
public:
    Outcome(Value value) : m_state(std::in_place_index<0>, std::move(value)) {}
    Outcome(Error error) : m_state(std::in_place_index<1>, std::move(error)) {}

    explicit operator bool() const { return m_state.index() == 0; }

    [[nodiscard]] Value& operator*() & { return std::get<0>(m_state); }
    [[nodiscard]] const Value& operator*() const& { return std::get<0>(m_state); }
    [[nodiscard]] Value&& operator*() && { return std::get<0>(std::move(m_state)); }
    [[nodiscard]] Value* operator->() { return &std::get<0>(m_state); }
    [[nodiscard]] const Value* operator->() const { return &std::get<0>(m_state); }

    [[nodiscard]] const Error& error() const { return std::get<1>(m_state); }

private:
    std::variant<Value, Error> m_state;
};

/// The result of a call that returns no value on success.
template <class Error>
class [[nodiscard]] Outcome<void, Error>
{
public:
    Outcome() = default;
    Outcome(Error error) : m_error(std::move(error)) {}

    explicit operator bool() const { return !m_error; }

    [[nodiscard]] const Error& error() const { return m_error.value(); }

private:
    std::optional<Error> m_error;
};

} // namespace harbex
