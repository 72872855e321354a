#pragma once

#include "base/FileDescriptor.h"

#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace harbex
{

/// Turns SIGTERM, SIGINT and SIGHUP into a Qt signal on the main thread: at logout and at Ctrl+C the program
/// ends in order. One for the life of the process, on the main thread.
class TerminationSignals : public QObject
{
    Q_OBJECT

public:
    explicit TerminationSignals(QObject* parent = nullptr);
    ~TerminationSignals() override;

Q_SIGNALS:
    void received();

private:
    FileDescriptor m_readEnd;
    FileDescriptor m_writeEnd;
    std::unique_ptr<QSocketNotifier> m_notifier;
};

} // namespace harbex
