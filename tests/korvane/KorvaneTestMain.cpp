// The application's tests run on Qt's offscreen platform with a private
// session bus, so nothing reaches the user's desktop or a running agent.

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <QApplication>

#include <cstdlib>
#include <memory>

int main(int argc, char* argv[])
{
    ::testing::InitGoogleTest(&argc, argv);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    std::unique_ptr<kvtest::PrivateBus> bus;
    if (!GTEST_FLAG_GET(list_tests)) {
        bus = std::make_unique<kvtest::PrivateBus>();
        ::setenv("DBUS_SESSION_BUS_ADDRESS", bus->address().c_str(), 1);
    }
    QApplication application(argc, argv);
    application.setQuitOnLastWindowClosed(false);
    return RUN_ALL_TESTS();
}
