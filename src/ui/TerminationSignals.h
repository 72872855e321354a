#pragma once

#include "base/FileDescriptor.h"

#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace harbex
{

/// Turns SIGTERM, SIGINT and SIGHUP into a Qt signal, so that the program ends normally at logout and Ctrl+C.
/// A signal that the process inherited as ignored stays ignored. Create one per process. Main thread only.
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
