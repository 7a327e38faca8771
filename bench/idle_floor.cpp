// The baseline of scripts/idle-cpu.sh: a Qt event loop that does nothing but wake every
// 100 ms on one reused single-shot precise timer, as the scheduler's poll does at best.
#include <QCoreApplication>
#include <QTimer>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QTimer poll;
    poll.setSingleShot(true);
    poll.setTimerType(Qt::PreciseTimer);
    QObject::connect(&poll, &QTimer::timeout, [&poll] { poll.start(100); });
    poll.start(100);
    return QCoreApplication::exec();
}
