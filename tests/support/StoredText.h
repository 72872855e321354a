#pragma once

#include "support/ContentStateFixture.h"

#include <QByteArray>
#include <QFile>

namespace harbex::test
{

/// Returns the content of the configuration file. Empty if there is none.
inline QByteArray storedText()
{
    QFile file(preferencesPath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace harbex::test
