#pragma once

#include "base/FileDescriptor.h"
#include "support/CapturedOutput.h"
#include "support/TestMain.h"

#include <QByteArrayList>

namespace harbex::test
{

/// Catches what the engine prints for as long as this lives; it can be read meanwhile.
class EngineOutput
{
public:
    EngineOutput();

    /// The lines printed so far.
    [[nodiscard]] QByteArrayList lines() const;

private:
    FileDescriptor m_file;
    RedirectedOutput m_redirection;
};

/// Has Qt Test report through a descriptor of its own, so that a failure shows although standard output is
/// redirected. Called before anything is reported.
void reportApartFromStandardOutput();

} // namespace harbex::test

/// The main function of a test of the engine.
#define HARBEX_ENGINE_TEST_MAIN(Test)                                                                        \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        harbex::test::reportApartFromStandardOutput();                                                       \
        return harbex::test::runTest<QCoreApplication, Test>(argc, argv);                                    \
    }
