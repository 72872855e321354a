#pragma once

#include "support/ScratchHome.h"

#include <QCoreApplication>
#include <QTest>

#include <clocale>
#include <csignal>

namespace harbex::test
{

/// Runs one test class with an Application object and a scratch home.
template <class Application, class Test>
int runTest(int argc, char** argv)
{
    const ScratchHome home;
    std::signal(SIGPIPE, SIG_IGN);
    Application application(argc, argv);
    std::setlocale(LC_ALL, "C.UTF-8");
    Test test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace harbex::test

/// The main function of a test without windows.
#define HARBEX_TEST_MAIN(Test)                                                                               \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        return harbex::test::runTest<QCoreApplication, Test>(argc, argv);                                    \
    }
