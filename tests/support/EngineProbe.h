#pragma once

#include "support/EngineFiles.h"
#include "watcher/DownloadImageRedirector.h"

#include <QTest>

#include <string>
#include <utility>
#include <vector>

namespace harbex::test
{

/// Time limit for an expected event, in milliseconds. It is long because of busy machines and sanitizers.
/// EngineTest shortens it after a timeout, so that a broken engine does not cost a long wait per test.
inline int patience = 20'000;

// Rules and folders for tests. Paths and names are raw bytes.

[[nodiscard]] inline FilterRule ruleFor(RuleField field, const std::string& destination)
{
    FilterRule rule;
    rule.field = field;
    rule.destination = FileUrl::fromPath(destination);
    return rule;
}

[[nodiscard]] inline FilterRule takeAll(const std::string& destination)
{
    return ruleFor(RuleField::name, destination);
}

[[nodiscard]] inline FilterRule takeNamed(RuleOperator operatorType, const char* value,
                                          const std::string& destination)
{
    FilterRule rule = ruleFor(RuleField::name, destination);
    rule.operatorType = operatorType;
    rule.value = QString::fromUtf8(value);
    return rule;
}

[[nodiscard]] inline FilterRule takeExtension(RuleOperator operatorType, const char* value,
                                              const std::string& destination)
{
    FilterRule rule = takeNamed(operatorType, value, destination);
    rule.field = RuleField::fileExtension;
    return rule;
}

[[nodiscard]] inline FilterRule takeKind(RuleKind kind, const std::string& destination)
{
    FilterRule rule = ruleFor(RuleField::kind, destination);
    rule.kind = kind;
    return rule;
}

[[nodiscard]] inline WatchedFolder watched(const std::string& path, std::vector<FilterRule> rules)
{
    return {QUuid::createUuid(), FileUrl::fromPath(path), std::nullopt, std::move(rules)};
}

/// Starts the engine and waits until it runs. Returns false on timeout.
[[nodiscard]] inline bool startAndWait(DownloadImageRedirector& engine,
                                       const std::vector<WatchedFolder>& folders)
{
    engine.start(folders);
    return QTest::qWaitFor([&] { return engine.isRunning(); }, patience);
}

/// Restarts the engine with these folders and waits until it runs. Returns false on timeout.
[[nodiscard]] inline bool restartAndWait(DownloadImageRedirector& engine, std::vector<WatchedFolder> folders)
{
    bool stopped = false;
    QObject context;
    QObject::connect(&engine, &DownloadImageRedirector::isRunningChanged, &context,
                     [&](bool isRunning) { stopped = stopped || !isRunning; });
    engine.restart(std::move(folders));
    return QTest::qWaitFor([&] { return stopped && engine.isRunning(); }, patience);
}

/// Returns whether a folder was replaced: activeFDs() has as many entries as `before`, but is not equal to
/// it. A directory that replaces another one gets a new descriptor, even if it was watched before.
[[nodiscard]] inline bool isWatchedAgain(const DownloadImageRedirector& engine,
                                         const std::vector<int>& before)
{
    const std::vector<int> now = engine.activeFDs();
    return now.size() == before.size() && now != before;
}

/// Returns the messages of the log without timestamps, oldest first.
[[nodiscard]] inline QStringList messages(const DownloadImageRedirector& engine)
{
    QStringList messages;
    for (const QString& line : engine.logs())
        messages.prepend(line.section(QStringLiteral("] "), 1));
    return messages;
}

/// Returns the newest message of the log without its timestamp. Empty if there is none.
[[nodiscard]] inline QString lastMessage(const DownloadImageRedirector& engine)
{
    return engine.logs().isEmpty() ? QString() : engine.logs().first().section(QStringLiteral("] "), 1);
}

/// Shows that an event does not happen: entries that arrive later in the same folder are moved first.
class Sentinel
{
public:
    /// `inbox` is a watched folder inside `scratch`.
    Sentinel(const ScratchFolder& scratch, std::string inbox)
        : m_scratch(scratch), m_inbox(std::move(inbox)),
          m_destination(m_scratch.makeFolder("sentinels of " + m_inbox.substr(m_inbox.rfind('/') + 1)))
    {
    }

    /// The rule for sentinels. It must be the first rule of the folder.
    [[nodiscard]] FilterRule rule() const
    {
        return takeNamed(RuleOperator::isEqual, "sentinel", m_destination);
    }

    /// Sends a file and a folder, and waits until the engine has logged both moves. By then the engine has
    /// processed and logged all entries that were in the folder before, except those that wait for a retry.
    /// Returns false on timeout.
    [[nodiscard]] bool passes(const DownloadImageRedirector& engine) const { return allPass(engine, {this}); }

    /// Does the same as passes() for several folders at once.
    [[nodiscard]] static bool allPass(const DownloadImageRedirector& engine,
                                      const std::vector<const Sentinel*>& sentinels)
    {
        // The file may be sampled together with an entry that is moved after it. The folder is not sampled,
        // so it is moved after both.
        return areMoved(engine, sentinels, &Sentinel::sendFile) &&
               areMoved(engine, sentinels, &Sentinel::sendFolder);
    }

    /// Like passes(), but only for folders that arrived before: it sends two folders, which takes less time.
    [[nodiscard]] bool foldersPass(const DownloadImageRedirector& engine) const
    {
        return areMoved(engine, {this}, &Sentinel::sendFolder) &&
               areMoved(engine, {this}, &Sentinel::sendFolder);
    }

private:
    using Send = void (Sentinel::*)(const std::string& name) const;

    void sendFile(const std::string& name) const { m_scratch.arrive(m_inbox + '/' + name, {}); }
    void sendFolder(const std::string& name) const { makeFolder(m_inbox + '/' + name); }

    [[nodiscard]] static bool areMoved(const DownloadImageRedirector& engine,
                                       const std::vector<const Sentinel*>& sentinels, Send send)
    {
        static int count = 0;
        QStringList expected;
        QObject context;
        QObject::connect(&engine, &DownloadImageRedirector::logsChanged, &context,
                         [&] { expected.removeOne(lastMessage(engine)); });
        for (const Sentinel* sentinel : sentinels) {
            const std::string name = "sentinel." + std::to_string(++count);
            (sentinel->*send)(name);
            expected << QStringLiteral("Moved %1 -> %1").arg(QString::fromStdString(name));
        }
        if (QTest::qWaitFor([&] { return expected.isEmpty(); }, patience)) return true;
        qWarning("not in the log: %s\nThe log:\n%s", qPrintable(expected.join(u'\n')),
                 qPrintable(messages(engine).join(u'\n')));
        return false;
    }

    const ScratchFolder& m_scratch;
    const std::string m_inbox;
    const std::string m_destination;
};

} // namespace harbex::test
