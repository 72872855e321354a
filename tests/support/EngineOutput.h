#pragma once

#include "support/CapturedOutput.h"
#include "support/TestMain.h"

namespace harbex::test
{

/// Captures what an engine prints.
using EngineOutput = CapturedOutput;

} // namespace harbex::test

/// Registers a test class of the engine.
#define HARBEX_ENGINE_TEST(Test)                                                                             \
    HARBEX_MAIN(Test)                                                                                        \
    {                                                                                                        \
        harbex::test::reportApartFromStandardOutput();                                                       \
        return harbex::test::runTest<QCoreApplication, Test>(argc, argv);                                    \
    }
