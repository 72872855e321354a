#pragma once

#include "base/FileDescriptor.h"
#include "support/CapturedOutput.h"
#include "support/TestMain.h"

#include <QByteArrayList>

namespace harbex::test
{

/// Captures standard output while the object exists. The lines can be read at any time.
class EngineOutput
{
public:
    EngineOutput();

    /// Returns the lines printed so far.
    [[nodiscard]] QByteArrayList lines() const;

private:
    FileDescriptor m_file;
    RedirectedOutput m_redirection;
};

/// Makes Qt Test report through its own descriptor, so that failures are visible while standard output is
/// redirected. Call it before Qt Test reports anything.
void reportApartFromStandardOutput();

} // namespace harbex::test

/// Registers a test class of the engine.
#define HARBEX_ENGINE_TEST(Test)                                                                             \
    HARBEX_MAIN(Test)                                                                                        \
    {                                                                                                        \
        harbex::test::reportApartFromStandardOutput();                                                       \
        return harbex::test::runTest<QCoreApplication, Test>(argc, argv);                                    \
    }
