// The main() of the test programs with Qt widgets (the desktop parts, the
// Korvane application): Qt's offscreen platform and a private session bus,
// so nothing reaches the user's desktop, notification service or agent. The
// program's target defines KV_RESOURCES_DIR, the staged resources folder.

#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <QApplication>

#include <cstdlib>
#include <memory>

int main(int argc, char* argv[])
{
    ::testing::InitGoogleTest(&argc, argv);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    ::setenv("KORVANE_VELGAR_RESOURCES", KV_RESOURCES_DIR, 1);

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
