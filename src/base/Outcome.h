#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <variant>

namespace harbex
{

/// A failed call into the operating system: the errno it left.
struct SystemError {
    int code = 0;

    /// What people read: "No such file or directory".
    [[nodiscard]] std::string description() const { return std::generic_category().message(code); }

    /// The errno of the call that just failed, before anything else can change it.
    [[nodiscard]] static SystemError last() { return {errno}; }

    friend bool operator==(const SystemError&, const SystemError&) = default;
};

/// What a call that can fail gives back: a value or the reason there is none.
/// Asking for the one that is not there is a programming error and ends the program.
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

/// The outcome of a call that gives nothing back when it succeeds.
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
