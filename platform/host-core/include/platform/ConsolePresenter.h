#pragma once

#include <functional>
#include <memory>

#include <QString>

#include "interfaces/DesktopNotification.h"
#include "vexlor_host_core_export.h"

namespace Vexlor::DesktopNotification {

// Writes notices as text lines, for hosts without a desktop: one line when a notice is
// shown (title and text) and one when it is withdrawn. Plain text only, so it answers
// false to every feature.
class VEXLOR_HOST_CORE_EXPORT ConsolePresenter : public IPresenter {
public:
    using Sink = std::function<void(const QString& line)>;

    // Without a sink, lines go to standard output, flushed one by one.
    explicit ConsolePresenter(Sink sink = {});
    ~ConsolePresenter() override;

    void Show(std::shared_ptr<INotification> notification) override;
    void Hide(std::shared_ptr<INotification> notification) override;
    bool SupportsFeature(int feature) const override;

private:
    void Write(const QString& line) const;

    Sink sink;
};

}  // namespace Vexlor::DesktopNotification
