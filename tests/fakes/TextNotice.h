#pragma once

#include <utility>

#include <QString>

#include "interfaces/DesktopNotification.h"

namespace Vexlor::Testing {

// A notice with fixed texts and a close button only, as presenters receive them.
class TextNotice : public DesktopNotification::INotification {
public:
    TextNotice(QString title, QString text) : title(std::move(title)), text(std::move(text)) {}

    QString GetAcceptButtonText() const override { return {}; }
    QString GetRejectButtonText() const override { return QStringLiteral("Close"); }
    QString GetTitleText() const override { return title; }
    QString GetInformationText() const override { return text; }
    bool HasAcceptButton() const override { return false; }
    void Accept() override {}
    void Reject() override {}

private:
    QString title;
    QString text;
};

}  // namespace Vexlor::Testing
