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

    explicit MoveRounds(const MoveCase& moveCase) : fixture(moveCase) {}

    /// Makes the next move. Calls `act` before the first call for which `counts` returns true, in the next
    /// round before the second one, and so on. Gives that call this answer. Returns false after the last
    /// round: then nothing has happened during the move.
    [[nodiscard]] bool next(const Counts& counts, const Act& act, const Answer& answer = Answer::proceed());

    /// Returns MovePlaces::result() of the last round.
    [[nodiscard]] QByteArray result() const { return fixture.result(run.error); }
    /// Returns the label of the call and the path that it refers to. For test messages.
    [[nodiscard]] const char* where() const { return m_where.c_str(); }

    /// The last round.
    MoveFixture fixture;
    InterceptedRun run;
    /// The name of the call, and the path of the entry that it refers to.
    std::string call;
    std::string subject;
    /// A sync preceded the call.
    bool isAfterSync = false;
    /// The source existed before the call.
    bool hadSource = false;
    /// Number of rounds in which something happened. During a round, it does not count yet.
    size_t count = 0;

private:
    std::string m_where;
};

} // namespace harbex::test
