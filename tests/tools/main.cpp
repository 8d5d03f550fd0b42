#include "tests/support/TestSupport.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

// velgarctl runs as QProcess children, which want an application object.
int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    kvtest::holdMachineTestLock();
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
