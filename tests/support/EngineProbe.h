#pragma once

#include "base/ReadableText.h"
#include "fs/EntryName.h"
#include "support/EngineFiles.h"
#include "watcher/DownloadImageRedirector.h"
#include "watcher/RuleMatching.h"

#include <QTest>

#include <string>
#include <utility>
#include <vector>

namespace harbex::test
{

/// Time limit for an expected event, in milliseconds. It is long because of busy machines and sanitizers.
/// EngineTest shortens it after a timeout, so that a broken engine does not cost a long wait per test.
inline int patience = 20'000;

// Rules and folders for tests. Paths and names are raw bytes. Only a move needs a destination that exists.

[[nodiscard]] inline FilterRule ruleFor(RuleField field, RuleOperator operatorType, const std::string& value,
                                        const std::string& destination = "/somewhere")
{
    FilterRule rule;
    rule.field = field;
    rule.operatorType = operatorType;
    rule.value = QString::fromStdString(value);
    rule.destination = FileUrl::fromPath(destination);
    return rule;
}

[[nodiscard]] inline FilterRule nameContains(const std::string& value,
                                             const std::string& destination = "/somewhere")
{
    return ruleFor(RuleField::name, RuleOperator::contains, value, destination);
}

[[nodiscard]] inline FilterRule nameIs(const std::string& value,
                                       const std::string& destination = "/somewhere")
{
    return ruleFor(RuleField::name, RuleOperator::isEqual, value, destination);
}

[[nodiscard]] inline FilterRule takeAll(const std::string& destination)
{
    return nameContains({}, destination);
}

[[nodiscard]] inline FilterRule extensionContains(const std::string& value,
                                                  const std::string& destination = "/somewhere")
{
    return ruleFor(RuleField::fileExtension, RuleOperator::contains, value, destination);
}

[[nodiscard]] inline FilterRule extensionIs(const std::string& value,
                                            const std::string& destination = "/somewhere")
{
    return ruleFor(RuleField::fileExtension, RuleOperator::isEqual, value, destination);
}

[[nodiscard]] inline FilterRule kindIs(RuleKind kind, const std::string& destination = "/somewhere")
{
    FilterRule rule = ruleFor(RuleField::kind, RuleOperator::contains, {}, destination);
    rule.kind = kind;
    return rule;
}

/// Returns whether both stages of the matching accept an entry with this name.
[[nodiscard]] inline bool takes(const FilterRule& rule, const std::string& name, bool isDirectory = false)
{
    const MatchableRule matchable(rule);
    const QString extension = ComparableText(textOfName(pathExtension(name))).lowerCased;
    return passesNameFilter(SplitName(name), matchable) && !isPartialDownload(name) &&
           matches(matchable, extension, isDirectory);
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
    [[nodiscard]] FilterRule rule() const { return nameIs("sentinel", m_destination); }

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
        return areMoved(engine, sentinels, false) && areMoved(engine, sentinels, true);
    }

    /// Like passes(), but only for folders that arrived before: it sends two folders, which takes less time.
    [[nodiscard]] bool foldersPass(const DownloadImageRedirector& engine) const
    {
        return areMoved(engine, {this}, true) && areMoved(engine, {this}, true);
    }

private:
    [[nodiscard]] static bool areMoved(const DownloadImageRedirector& engine,
                                       const std::vector<const Sentinel*>& sentinels, bool areFolders)
    {
        static int count = 0;
        QStringList expected;
        QObject context;
        QObject::connect(&engine, &DownloadImageRedirector::logsChanged, &context,
                         [&] { expected.removeOne(lastMessage(engine)); });
        for (const Sentinel* sentinel : sentinels) {
            const std::string name = "sentinel." + std::to_string(++count);
            const std::string path = sentinel->m_inbox + '/' + name;
            areFolders ? makeFolder(path) : sentinel->m_scratch.arrive(path, {});
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
