#pragma once

#include "support/TestMain.h"

#include <QApplication>

/// The main function of a test with windows. They are offscreen.
#define HARBEX_WINDOW_TEST_MAIN(Test)                                                                        \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        qputenv("QT_QPA_PLATFORM", "offscreen");                                                             \
        return harbex::test::runTest<QApplication, Test>(argc, argv);                                        \
    }
