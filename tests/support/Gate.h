#pragma once

#include <future>
#include <utility>

namespace harbex::test
{

/// Blocks tasks on other threads until the test opens the gate. The destructor opens it, so that a failing
/// test does not hang.
class Gate
{
public:
    Gate() = default;
    ~Gate() { open(); }

    void open()
    {
        if (!std::exchange(m_isOpen, true)) m_promise.set_value();
    }

    /// Returns the future that a task waits for. It may outlive the gate.
    [[nodiscard]] std::shared_future<void> opened() const { return m_opened; }

private:
    bool m_isOpen = false;
    std::promise<void> m_promise;
    std::shared_future<void> m_opened = m_promise.get_future().share();
};

} // namespace harbex::test
