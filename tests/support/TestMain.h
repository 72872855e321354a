#pragma once

#include "support/CapturedOutput.h"
#include "support/ScratchHome.h"

#include <QCoreApplication>
#include <QTest>

#include <clocale>
#include <csignal>

namespace harbex::test
{

/// A test class of a test program. The classes of a folder share a program, and each runs in a process of its
/// own: `harbex_fs_tests TestFileMove` takes the options of Qt Test after the name.
class TestRegistration
{
public:
    using Run = int (*)(int argc, char** argv);

    /// Registers a class before main() begins. `run` gets the arguments without the name.
    TestRegistration(const char* name, Run run);
};

/// Runs one test class with an Application object and a scratch home. Qt Test reports through its own
/// descriptor, so that failures are visible while standard output is redirected.
template <class Application, class Test>
int runTest(int argc, char** argv)
{
    reportApartFromStandardOutput();
    const ScratchHome home;
    std::signal(SIGPIPE, SIG_IGN);
    Application application(argc, argv);
    std::setlocale(LC_ALL, "C.UTF-8");
    Test test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace harbex::test

/// Begins the main function of a test class, or of another process that a test starts.
#define HARBEX_MAIN(Test)                                                                                    \
    static int run##Test(int argc, char** argv);                                                             \
    static const harbex::test::TestRegistration registrationOf##Test(#Test, run##Test);                      \
    static int run##Test([[maybe_unused]] int argc, [[maybe_unused]] char** argv)

/// Registers a test class without windows.
#define HARBEX_TEST(Test)                                                                                    \
    HARBEX_MAIN(Test)                                                                                        \
    {                                                                                                        \
        return harbex::test::runTest<QCoreApplication, Test>(argc, argv);                                    \
    }
