#include "support/MovePlaces.h"

#include "support/TreeSnapshot.h"

#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace harbex::test
{

void MovePlaces::makePlaces(const std::string& parentOfOut, const std::string& parentOfIn)
{
    m_here = std::make_unique<ScratchFolder>(parentOfIn);
    m_there = std::make_unique<ScratchFolder>(parentOfOut);
    in = m_here->makeFolder("in");
    source = in + "/source";
    out = m_there->makeFolder("out");
    target = out + "/target";
}

void MovePlaces::clearPlaces() const
{
    for (const std::string& folder : {in, out, here(), there()})
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (entry.path() != in && entry.path() != out) std::filesystem::remove_all(entry.path());
}

void MovePlaces::openToAll() const
{
    for (const std::string& folder : {here(), in, there(), out})
        if (::chmod(folder.c_str(), 0777) != 0) qFatal("cannot change the permissions of %s", folder.c_str());
}

QByteArray MovePlaces::move(const Interceptor& interceptor)
{
    remember();
    return result(tryMove(interceptor));
}

int MovePlaces::tryMove(const Interceptor& interceptor)
{
    return runMove([this] { return FileMove().moveItem(source, target); }, interceptor);
}

int MovePlaces::moveWithoutPrivileges(const Interceptor& interceptor)
{
    const auto work = [this] {
        dropPrivileges();
        return FileMove().moveItem(source, target);
    };
    return runMove(work, interceptor);
}

int MovePlaces::runMove(const std::function<Outcome<void>()>& work, const Interceptor& interceptor)
{
    run = runIntercepted(fileSystemCalls(), work, [&](const InterceptedCall& call) {
        const std::optional<Answer> refused = lacks.refuses(call);
        return refused ? *refused : interceptor(call);
    });
    return run.error;
}

QByteArray MovePlaces::moved()
{
    return "moved";
}

QByteArray MovePlaces::kept(int error)
{
    return QByteArray("kept: ") + strerrorname_np(error);
}

void MovePlaces::remember()
{
    m_source = snapshotOf(source);
    m_target = snapshotOf(target);
    m_others = leftovers();
}

QByteArray MovePlaces::result(int error) const
{
    const bool isTidy = leftovers() == m_others;
    if (error == 0 && isTidy && isTargetWhole() && !exists(source)) return moved();
    if (error != 0 && isTidy && isSourceWhole() && snapshotOf(target) == m_target) return kept(error);
    return QByteArray("error ") + strerrorname_np(error) + "\nsource before: " + m_source +
           "\nsource: " + snapshotOf(source) + "\ntarget: " + snapshotOf(target) +
           "\nleft over: " + leftovers().join(' ');
}

bool MovePlaces::isSourceWhole() const
{
    return snapshotOf(source) == m_source;
}

bool MovePlaces::isTargetWhole() const
{
    return snapshotOf(target) == m_source;
}

QByteArrayList MovePlaces::leftovers() const
{
    QByteArrayList names = namesIn(in);
    names.removeOne("source");
    QByteArrayList namesOut = namesIn(out);
    namesOut.removeOne("target");
    return names + namesOut;
}

} // namespace harbex::test
