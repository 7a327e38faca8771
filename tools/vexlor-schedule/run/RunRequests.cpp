#include <algorithm>
#include <exception>

#include "base/Duration.h"
#include "base/RecordText.h"
#include "core/Saturating.h"
#include "run/RunSession.h"
#include "schedule/Edits.h"
#include "store/Protocol.h"
#include "store/SettingsFileCheck.h"

namespace Vexlor::ScheduleTool {

// A request from another process.
void RunSession::Serve(const QByteArray& bytes, std::function<void(const QByteArray&)> answer) {
    const auto request = DecodeRequest(bytes);
    if (!request) {
        answer(EncodeOutcome({EXIT_USAGE,
                              {},
                              QStringLiteral("the running scheduler could not read the request\n"),
                              std::nullopt}));
        return;
    }
    if (request->command == CommandName::Stop) {
        StopRecording(std::move(answer));  // changes no schedule, so it need not wait
        return;
    }
    edits.WhenSafe([this, request = *request, answer = std::move(answer)] {
        try {
            answer(HandleRequest(request));
        } catch (const std::exception& error) {
            // The edit failed, the run goes on.
            answer(EncodeOutcome(
                {EXIT_REFUSED,
                 {},
                 QStringLiteral("the running scheduler failed to carry out the edit: %1\n")
                     .arg(QString::fromLocal8Bit(error.what())),
                 std::nullopt}));
        }
    });
}

// `stop`: the capture ends as at the planned end, so the engine goes on to the next record.
void RunSession::StopRecording(std::function<void(const QByteArray&)> answer) {
    const std::optional<QK::RecordTime> recording = controller->CurrentRecord();
    if (controller->IsIdle()) {
        answer(EncodeOutcome(
            {EXIT_REFUSED, {}, QStringLiteral("nothing is being recorded\n"), std::nullopt}));
        return;
    }
    printer.Line(QStringLiteral("stop requested"));
    controller->Stop([this, recording, answer = std::move(answer)] {
        answer(EncodeOutcome(
            {EXIT_DONE,
             recording ? QStringLiteral("stopped %1\n").arg(DescribeRecord(*recording))
                       : QStringLiteral("stopped the requested recording before it began\n"),
             {},
             std::nullopt}));
        CheckIdle();
    });
}

LiveState RunSession::Live() const {
    LiveState live;
    live.capture = controller->Live();
    live.notices = noticeBoard.Shown();
    const QK::RecordTimeList planned = scheduler->GetSchedule();
    if (scheduler->IsEnabled() && !planned.empty()) {
        live.nextRecord = planned.front();
        live.nextCaptureAt = Core::SaturatingSub(planned.front().startTime, lead);
    }
    return live;
}

// An edit from another process, on the schedule this process runs.
QByteArray RunSession::HandleRequest(const EditRequest& request) {
    try {
        CheckSettingsFile(path);  // what a hand edit put there is neither shown nor replaced
    } catch (const NotASettingsFile& error) {
        return EncodeOutcome(
            {EXIT_REFUSED, {}, QString::fromStdString(error.what()) + '\n', std::nullopt});
    }
    const ScheduleState current = Current();
    const EditContext editContext{clock.Now(), controller->CurrentRecord(), Live()};
    EditOutcome outcome = ApplyEdit(current, request, editContext);
    if (!outcome.changed) {
        return EncodeOutcome(outcome);
    }
    printer.ScheduleReloaded(outcome.changed->enabled, outcome.changed->schedule.size());
    const QK::RecordTimeList dropped = ApplyState(*outcome.changed);
    TellStatus(scheduler->IsEnabled(), scheduler->GetSchedule().size());
    const bool addDropped =
        request.command == CommandName::Add && request.rule.isEmpty() &&
        std::any_of(dropped.begin(), dropped.end(),
                    [&](const QK::RecordTime& r) { return r.title == request.record.title; });
    if (addDropped) {
        const QString why =
            editContext.recording
                ? QStringLiteral("it would begin while %1 is being recorded")
                      .arg(QuoteTitle(editContext.recording->title))
                : QStringLiteral("it ends before a capture begun %1 ahead could start")
                      .arg(FormatDuration(lead));
        outcome = {EXIT_REFUSED,
                   {},
                   QStringLiteral("the running scheduler could not take %1: %2\n")
                       .arg(DescribeRecord(request.record), why),
                   std::nullopt};
    }
    if (storage->HasPending()) {
        outcome.err += QStringLiteral(
                           "not saved to %1 yet (%2); the running scheduler holds the change and "
                           "saves it when it can\n")
                           .arg(path, QString::fromStdString(storage->Failure().value_or("")));
    }
    return EncodeOutcome(outcome);
}

}  // namespace Vexlor::ScheduleTool
