#pragma once

#include "support/MoveFixture.h"

#include <functional>
#include <string>

namespace harbex::test
{

/// Returns the path of the entry that a call refers to. Empty for calls with two paths.
[[nodiscard]] std::string subjectOf(const InterceptedCall& call);

/// Moves the entry of one case again and again. In each round something happens before another system call.
class MoveRounds
{
public:
    using Counts = std::function<bool(const MoveFixture&, const InterceptedCall&)>;
    using Act = std::function<void(const MoveFixture&, const InterceptedCall&)>;

    explicit MoveRounds(const MoveCase& moveCase) : m_fixture(moveCase) {}

    /// Makes the next move. Calls `act` before the first call for which `counts` returns true, in the next
    /// round before the second one, and so on. Gives that call this answer. Returns false after the last
    /// round: then nothing has happened during the move.
    [[nodiscard]] bool next(const Counts& counts, const Act& act, const Answer& answer = Answer::proceed());

    /// The last round.
    [[nodiscard]] const MoveFixture& fixture() const { return m_fixture; }
    [[nodiscard]] const InterceptedRun& run() const { return m_run; }
    /// Returns MovePlaces::result() of the last round.
    [[nodiscard]] QByteArray result() const { return m_fixture.result(m_run.error); }
    /// Returns the label of the call and the path that it refers to. For test messages.
    [[nodiscard]] const char* where() const { return m_where.c_str(); }
    /// Returns the name of the call.
    [[nodiscard]] const std::string& call() const { return m_call; }
    /// Returns the path of the entry that the call refers to.
    [[nodiscard]] const std::string& subject() const { return m_subject; }
    /// Returns whether a sync preceded the call.
    [[nodiscard]] bool isAfterSync() const { return m_isAfterSync; }
    /// Returns whether the source existed before the call.
    [[nodiscard]] bool hadSource() const { return m_hadSource; }

    /// Returns the number of rounds in which something happened. During a round, it does not count yet.
    [[nodiscard]] size_t count() const { return m_count; }

private:
    MoveFixture m_fixture;
    InterceptedRun m_run;
    std::string m_where;
    std::string m_call;
    std::string m_subject;
    bool m_isAfterSync = false;
    bool m_hadSource = false;
    size_t m_count = 0;
};

} // namespace harbex::test
