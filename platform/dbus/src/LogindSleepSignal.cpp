#include "platform/LogindSleepSignal.h"

#include <utility>

#include <QDBusConnection>
#include <QObject>

#include "BusCall.h"
#include "Logging.h"

namespace Vexlor::App {

namespace {

const char* const SERVICE = "org.freedesktop.login1";
const char* const PATH = "/org/freedesktop/login1";
const char* const INTERFACE = "org.freedesktop.login1.Manager";
const char* const SIGNAL_NAME = "PrepareForSleep";

// QtDBus delivers signals to slots only.
class Receiver : public QObject {
    Q_OBJECT

public:
    explicit Receiver(LogindSleepSignal::Callback callback) : callback(std::move(callback)) {}

public slots:
    void PrepareForSleep(bool start) { callback(start); }

private:
    LogindSleepSignal::Callback callback;
};

}  // namespace

struct LogindSleepSignal::Impl {
    QDBusConnection bus{QString()};
    std::unique_ptr<Receiver> receiver;

    bool Connect(bool on) {
        const QString service = QLatin1String(SERVICE), path = QLatin1String(PATH),
                      interface = QLatin1String(INTERFACE), name = QLatin1String(SIGNAL_NAME);
        const char* slot = SLOT(PrepareForSleep(bool));
        return on ? bus.connect(service, path, interface, name, receiver.get(), slot)
                  : bus.disconnect(service, path, interface, name, receiver.get(), slot);
    }
};

LogindSleepSignal::LogindSleepSignal(std::unique_ptr<Impl> impl) : impl(std::move(impl)) {}

LogindSleepSignal::~LogindSleepSignal() {
    impl->Connect(false);
}

std::unique_ptr<LogindSleepSignal> LogindSleepSignal::Create(Callback callback,
                                                             std::chrono::milliseconds timeout) {
    auto impl = std::make_unique<Impl>();
    impl->bus = Platform::Bus::Connect(Platform::Bus::Kind::System, timeout);
    if (!impl->bus.isConnected()) {
        return nullptr;
    }
    impl->receiver = std::make_unique<Receiver>(std::move(callback));
    if (!impl->Connect(true)) {
        qCWarning(Platform::Bus::lcDBus, "LogindSleepSignal: cannot listen to %s: %s", SIGNAL_NAME,
                  qUtf8Printable(impl->bus.lastError().message()));
        return nullptr;
    }
    return std::unique_ptr<LogindSleepSignal>(new LogindSleepSignal(std::move(impl)));
}

}  // namespace Vexlor::App

#include "LogindSleepSignal.moc"
