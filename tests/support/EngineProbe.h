#pragma once

#include "support/EngineFiles.h"
#include "watcher/DownloadImageRedirector.h"

#include <QTest>

#include <string>
#include <utility>
#include <vector>

namespace harbex::test
{

/// How long a test waits for what must happen before it fails, in milliseconds; generous, for a busy machine
/// and the sanitizers.
inline constexpr int patience = 30'000;

// Rules and folders of the tests, with paths in raw bytes.

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

/// Starts the engine and waits until it runs.
[[nodiscard]] inline bool startAndWait(DownloadImageRedirector& engine,
                                       const std::vector<WatchedFolder>& folders)
{
    engine.start(folders);
    return QTest::qWaitFor([&] { return engine.isRunning(); }, patience);
}

/// Restarts the engine and waits until it runs with these folders.
[[nodiscard]] inline bool restartAndWait(DownloadImageRedirector& engine, std::vector<WatchedFolder> folders)
{
    bool stopped = false;
    QObject context;
    QObject::connect(&engine, &DownloadImageRedirector::isRunningChanged, &context,
                     [&](bool isRunning) { stopped = stopped || !isRunning; });
    engine.restart(std::move(folders));
    return QTest::qWaitFor([&] { return stopped && engine.isRunning(); }, patience);
}

/// Whether as many folders are watched as there were when activeFDs() was `before`, and not all of them the
/// same: one that stands at the path of another is another, even if it has been there before.
[[nodiscard]] inline bool isWatchedAnew(const DownloadImageRedirector& engine, const std::vector<int>& before)
{
    const std::vector<int> now = engine.activeFDs();
    return now.size() == before.size() && now != before;
}

/// The messages of the log without their times, oldest first.
[[nodiscard]] inline QStringList messages(const DownloadImageRedirector& engine)
{
    QStringList messages;
    for (const QString& line : engine.logs())
        messages.prepend(line.section(QStringLiteral("] "), 1));
    return messages;
}

/// The newest message of the log, empty when there is none.
[[nodiscard]] inline QString lastMessage(const DownloadImageRedirector& engine)
{
    return engine.logs().isEmpty() ? QString() : engine.logs().first().section(QStringLiteral("] "), 1);
}

/// How many messages of the log are this one.
[[nodiscard]] inline qsizetype countMessages(const DownloadImageRedirector& engine, const QString& message)
{
    return messages(engine).count(message);
}

/// Shows that something does not happen: entries that arrive later in the same folder are moved while it has
/// not happened.
class Sentinel
{
public:
    /// For the watched folder `inbox` within `scratch`.
    Sentinel(const ScratchFolder& scratch, std::string inbox)
        : m_scratch(scratch), m_inbox(std::move(inbox)),
          m_destination(m_scratch.makeFolder("sentinels of " + m_inbox.substr(m_inbox.rfind('/') + 1)))
    {
    }

    /// Stands before the other rules of the folder.
    [[nodiscard]] FilterRule rule() const
    {
        return takeNamed(RuleOperator::isEqual, "sentinel", m_destination);
    }

    /// Sends entries through and waits until the engine has recorded their moves. By then all that it was
    /// going to do at once with what stood in the folder before is done and recorded.
    [[nodiscard]] bool passes(const DownloadImageRedirector& engine)
    {
        // The file may share its sampling with an entry that is moved after it; the folder, which waits for
        // no sampling, comes after both.
        for (const auto sendOne : {&Sentinel::sendFile, &Sentinel::sendFolder}) {
            bool isRecorded = false;
            QObject context;
            QObject::connect(&engine, &DownloadImageRedirector::logsChanged, &context, [&] {
                isRecorded = isRecorded || lastMessage(engine).startsWith(movedMessage());
            });
            (this->*sendOne)();
            if (!QTest::qWaitFor([&] { return isRecorded; }, patience)) return false;
        }
        return true;
    }

    void sendFile() { m_scratch.arrive(m_inbox + nextName(), {}); }
    void sendFolder() { makeFolder(m_inbox + nextName()); }

    /// Whether the entry that was sent last is through.
    [[nodiscard]] bool hasArrived() const { return exists(m_destination + name()); }

private:
    [[nodiscard]] std::string name() const { return "/sentinel." + std::to_string(m_count); }

    [[nodiscard]] QString movedMessage() const
    {
        return QStringLiteral("Moved ") + QString::fromStdString(name().substr(1)) + QStringLiteral(" -> ");
    }

    std::string nextName()
    {
        ++m_count;
        return name();
    }

    const ScratchFolder& m_scratch;
    const std::string m_inbox;
    const std::string m_destination;
    int m_count = 0;
};

} // namespace harbex::test
