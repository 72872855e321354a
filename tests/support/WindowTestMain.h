#pragma once

#include "support/TestMain.h"

// The tests of the window use dozens of classes. Each file would repeat a list of them.
#include <QtTest>
#include <QtWidgets>

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

/// Registers a test class with windows. They are offscreen.
#define HARBEX_WINDOW_TEST(Test)                                                                             \
    HARBEX_MAIN(Test)                                                                                        \
    {                                                                                                        \
        qputenv("QT_QPA_PLATFORM", "offscreen");                                                             \
        return harbex::test::runTest<QApplication, Test>(argc, argv);                                        \
    }
