#include <gtest/gtest.h>

#include <QCoreApplication>

// The sandbox and the viewer socket live on this thread's event loop.
int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
