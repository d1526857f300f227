#include <gtest/gtest.h>

#include <QCoreApplication>

// The main of every suite that talks to loopback servers: the tests drive the application's event
// loop themselves, a turn at a time, from this thread.
int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
