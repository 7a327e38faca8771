#include <gmock/gmock.h>
#include <QCoreApplication>

// Timers, queued calls and translators need an application object, so every test binary
// runs inside one.
int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
