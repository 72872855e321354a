#include "support/EngineTest.h"

#include "support/EngineResources.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

namespace harbex::test
{

namespace
{

WatchedFolder recordOf(const std::string& path, const Sentinel& sentinel, std::vector<FilterRule> rules)
{
    rules.insert(rules.begin(), sentinel.rule());
    return watched(path, std::move(rules));
}

} // namespace

QString moved(const std::string& name, const std::string& target)
{
    return QStringLiteral("Moved %1 -> %2")
        .arg(QString::fromStdString(name), QString::fromStdString(target.empty() ? name : target));
}

QString skipped(const std::string& name)
{
    return QStringLiteral("Skipped busy file: ") + QString::fromStdString(name);
}

QString moveFailed(const std::string& name, const char* reason)
{
    return QStringLiteral("Move failed for %1: %2")
        .arg(QString::fromStdString(name), QString::fromUtf8(reason));
}

Inbox::Inbox(const ScratchFolder& scratch, const std::string& name)
    : path(scratch.makeFolder(name)), out(scratch.makeFolder(name + " out")), sentinel(scratch, path)
{
}

WatchedFolder Inbox::with(std::vector<FilterRule> rules) const
{
    return recordOf(path, sentinel, std::move(rules));
}

void EngineTest::init()
{
    m_time.start();
    m_threads = threadCount();
    m_descriptors = descriptorCount();
    m_scratch = std::make_unique<ScratchFolder>();
    m_inbox = newFolder("inbox");
    m_out = newFolder("out");
    m_sentinel = std::make_unique<Sentinel>(*m_scratch, m_inbox);
    m_output = std::make_unique<CapturedOutput>();
}

void EngineTest::cleanup()
{
    m_engine.reset();
    m_output.reset();
    m_sentinel.reset();
    m_scratch.reset();
    if (QTest::currentTestFailed()) {
        if (m_time.elapsed() < patience) return;
        patience = std::min(std::max(patience * 3 / 4, 200), 1'500);
        qWarning("A wait has timed out. From now on, waits time out after %d ms.", patience);
        return;
    }
    QCOMPARE(threadCount(), m_threads);
    QCOMPARE(descriptorCount(), m_descriptors);
}

DownloadImageRedirector& EngineTest::engine()
{
    // Not in init(): a test may run its engine in a child process only.
    if (!m_engine) m_engine = std::make_unique<DownloadImageRedirector>();
    return *m_engine;
}

bool EngineTest::start(const std::vector<WatchedFolder>& folders)
{
    return startAndWait(engine(), folders);
}

bool EngineTest::start(const std::vector<FilterRule>& rules)
{
    return startAndWait(engine(), {inboxWith(rules)});
}

WatchedFolder EngineTest::inboxWith(std::vector<FilterRule> rules) const
{
    return recordOf(m_inbox, *m_sentinel, std::move(rules));
}

void EngineTest::arrive(const std::string& name, std::string_view content) const
{
    m_scratch->arrive(m_inbox + '/' + name, content);
}

QStringList EngineTest::log(const char* text) const
{
    return messages(*m_engine).filter(QString::fromUtf8(text));
}

bool EngineTest::waitFor(const std::function<bool()>& condition)
{
    return QTest::qWaitFor(condition, patience);
}

bool EngineTest::isLogged(const QString& message) const
{
    if (waitFor([&] { return log().contains(message); })) return true;
    qWarning("'%s' is not in the log:\n%s", qPrintable(message), qPrintable(log().join(u'\n')));
    return false;
}

bool EngineTest::hasNames(const std::string& folder, const QByteArrayList& names)
{
    if (waitFor([&] { return namesIn(folder) == names; })) return true;
    qWarning("%s has: %s", folder.c_str(), namesIn(folder).join(", ").constData());
    return false;
}

bool EngineTest::areWatched(size_t count) const
{
    return waitFor([&] { return m_engine->activeFDs().size() == count; });
}

bool EngineTest::areReplaced(const std::vector<int>& before) const
{
    return waitFor([&] {
        const std::vector<int> now = m_engine->activeFDs();
        return now.size() == before.size() && now != before;
    });
}

bool EngineTest::isProcessed(const std::string& name) const
{
    return waitFor([&] { return countPrinted("Processing: " + QByteArray::fromStdString(name)) > 0; });
}

bool EngineTest::sentinelsPass(const std::vector<Inbox>& inboxes) const
{
    std::vector<const Sentinel*> sentinels;
    for (const Inbox& inbox : inboxes)
        sentinels.push_back(&inbox.sentinel);
    return Sentinel::allPass(*m_engine, sentinels);
}

InterceptedRun EngineTest::runInChild(const std::vector<std::string>& calls,
                                      const std::function<bool()>& work, const Interceptor& interceptor)
{
    const auto workAndReport = [&]() -> Outcome<void> {
        const bool isDone = work();
        if (m_engine) writeFile(at("log of the child"), log().join(u'\n').toStdString());
        m_engine.reset();
        return isDone ? Outcome<void>() : SystemError{ETIME};
    };
    return runIntercepted(calls, workAndReport, interceptor);
}

InterceptedRun EngineTest::runInChild(const std::vector<SampleAction>& actions,
                                      const std::function<bool()>& work)
{
    std::map<std::string, int> samples;
    return runInChild({"statx"}, work, [&](const InterceptedCall& call) {
        const std::string path = call.text(1);
        const int sample = ++samples[path];
        for (const SampleAction& action : actions)
            if (action.path == path && action.sample == sample) action.act();
        return Answer::proceed();
    });
}

QStringList EngineTest::childLog() const
{
    return QString::fromUtf8(contents(at("log of the child"))).split(u'\n');
}

} // namespace harbex::test
