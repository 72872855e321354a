#pragma once

#include <future>
#include <utility>

namespace harbex::test
{

/// Where tasks on other threads wait until the test lets them on; at the latest when the test leaves, so that
/// one that fails does not hang.
class Gate
{
public:
    Gate() = default;
    ~Gate() { open(); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    void open()
    {
        if (!std::exchange(m_isOpen, true)) m_promise.set_value();
    }

    /// What a task holds and waits for; may outlive the gate.
    [[nodiscard]] std::shared_future<void> opened() const { return m_opened; }

private:
    bool m_isOpen = false;
    std::promise<void> m_promise;
    std::shared_future<void> m_opened = m_promise.get_future().share();
};

} // namespace harbex::test
