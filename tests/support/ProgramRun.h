#pragma once

#include <QtTest>

#include <csignal>

namespace harbex::test
{

/// A process of a program on a session bus. It ends with this object. The functions that wait run an event
/// loop, because the process may talk to an object of the test.
class ProgramRun
{
public:
    /// `variables` are added to the environment: "NAME=value".
    ProgramRun(const QString& program, const QStringList& arguments, const QString& busAddress,
               const QStringList& variables = {})
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        for (const QString& variable : variables)
            environment.insert(variable.section(u'=', 0, 0), variable.section(u'=', 1));
        m_process.setProcessEnvironment(environment);
        m_process.start(program, arguments);
        m_process.waitForStarted();
    }
    ~ProgramRun()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    ProgramRun(const ProgramRun&) = delete;
    ProgramRun& operator=(const ProgramRun&) = delete;

    [[nodiscard]] bool isRunning() const { return m_process.state() == QProcess::Running; }

    /// Waits for the next line of the output. Empty if the process has ended without one.
    [[nodiscard]] QByteArray nextLine()
    {
        (void)QTest::qWaitFor([this] { return m_process.canReadLine() || !isRunning(); }, 30000);
        return m_process.readLine().trimmed();
    }
    [[nodiscard]] QByteArray output() { return m_process.readAllStandardOutput(); }
    [[nodiscard]] QByteArray errors() { return m_process.readAllStandardError(); }

    /// Waits for the end and returns the exit status; -1 if the process was killed or still runs.
    [[nodiscard]] int exitStatus()
    {
        if (!QTest::qWaitFor([this] { return !isRunning(); }, 30000)) return -1;
        return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }
    void signal(int number) { ::kill(pid_t(m_process.processId()), number); }

private:
    QProcess m_process;
};

} // namespace harbex::test
