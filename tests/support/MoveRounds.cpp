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
    if (count > 0) fixture.renew();
    bool happened = false;
    bool hasSynced = false;
    size_t seen = 0;
    run = fixture.move([&](const InterceptedCall& now) {
        const bool isNow = !happened && counts(fixture, now) && seen++ == count;
        if (isNow) {
            happened = true;
            call = now.name;
            subject = subjectOf(now);
            m_where = now.label() + ' ' + subject;
            isAfterSync = hasSynced;
            hadSource = exists(fixture.source);
            act(fixture, now);
        }
        hasSynced |= isSync(now);
        return isNow ? answer : Answer::proceed();
    });
    count += happened;
    return happened;
}

} // namespace harbex::test
