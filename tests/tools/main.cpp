#include "tests/support/TestSupport.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

// The bus tests serve a stand-in agent object, which needs an application
// object and its event loop.
int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    kvtest::holdMachineTestLock();
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
