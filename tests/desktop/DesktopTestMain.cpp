// The desktop tests run on Qt's offscreen platform with a private session
// bus, so nothing reaches the user's desktop or notification service.

#include "tests/desktop/DesktopTestSupport.h"

#include <gtest/gtest.h>

#include <QApplication>

#include <cstdlib>
#include <memory>

int main(int argc, char* argv[])
{
    ::testing::InitGoogleTest(&argc, argv);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    ::setenv("KORVANE_VELGAR_RESOURCES", kvtest::resourcesFolder().c_str(), 1);

    // Started before Qt first looks the session bus up. Listing the tests
    // needs no bus.
    std::unique_ptr<kvtest::PrivateBus> bus;
    if (!GTEST_FLAG_GET(list_tests)) {
        bus = std::make_unique<kvtest::PrivateBus>();
        ::setenv("DBUS_SESSION_BUS_ADDRESS", bus->address().c_str(), 1);
    }

    QApplication application(argc, argv);
    application.setQuitOnLastWindowClosed(false);
    return RUN_ALL_TESTS();
}
