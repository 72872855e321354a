#include "support/MoveRounds.h"

#include <algorithm>
#include <array>

namespace harbex::test
{

std::string subjectOf(const InterceptedCall& call)
{
    std::string folder = call.pathOfOpen(static_cast<int>(call.arguments[0]));
    static const std::array named = {"faccessat2", "mkdirat", "newfstatat", "openat",
                                     "readlinkat", "statx",   "unlinkat"};
    if (std::ranges::find(named, call.name) == named.end()) return folder;
    const std::string name = call.text(1);
    static const std::string opened = "/proc/self/fd/";
    if (name.starts_with(opened)) return call.pathOfOpen(std::stoi(name.substr(opened.size())));
    if (name.empty() || name.starts_with('/')) return folder + name;
    return folder + '/' + name;
}

bool MoveRounds::next(const Counts& counts, const Act& act, const Answer& answer)
{
    if (m_count > 0) m_fixture.renew();
    bool happened = false;
    bool isAfterSync = false;
    size_t seen = 0;
    m_run = m_fixture.move([&](const InterceptedCall& call) {
        const bool isNow = !happened && counts(m_fixture, call) && seen++ == m_count;
        if (isNow) {
            happened = true;
            m_call = call.name;
            m_subject = subjectOf(call);
            m_where = call.label() + ' ' + m_subject;
            m_isAfterSync = isAfterSync;
            m_hadSource = exists(m_fixture.source);
            act(m_fixture, call);
        }
        isAfterSync |= isSync(call);
        return isNow ? answer : Answer::proceed();
    });
    m_count += happened;
    return happened;
}

} // namespace harbex::test
