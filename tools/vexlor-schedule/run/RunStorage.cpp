#include <algorithm>
#include <exception>

#include <QFileInfo>

#include "run/RunSession.h"
#include "run/RunTimings.h"
#include "schedule/RunPolicy.h"
#include "store/StoredSettings.h"

namespace Vexlor::ScheduleTool {

// Hands a schedule and flag to the scheduler and keeps the settings in step with what it
// made of them, so that nothing it drops stays stored.
QK::RecordTimeList RunSession::ApplyState(const ScheduleState& state) {
    const RetryingSettingsManager::Batch batch(*storage);  // one rewrite for all of it
    const QK::RecordTimeList schedule = CatchUp(state.schedule, clock.Now(), CATCH_UP_MARGIN);
    drops.SetKnown(schedule);
    scheduler->SetSchedule(schedule);
    scheduler->SetEnabled(state.enabled);
    // The user's switch holds also while nothing is planned, as it does in the file.
    if (settings->IsSchedulerEnabled() != state.enabled) {
        settings->SetSchedulerEnabled(state.enabled);
    }
    const QK::RecordTimeList running = scheduler->GetSchedule();
    if (settings->GetSchedule() != running) {
        settings->SetSchedule(running);
    }
    WritePlans(*storage, state.plans);
    drops.SetKnown(running);
    controller->HandOverIfDue();  // a caught-up record must not wait for a running capture
    CheckIdle();
    QK::RecordTimeList dropped;
    for (const QK::RecordTime& record : schedule) {
        if (std::none_of(running.begin(), running.end(),
                         [&](const QK::RecordTime& r) { return r.title == record.title; })) {
            dropped.push_back(record);
        }
    }
    return dropped;
}

ScheduleState RunSession::Current() {
    return {scheduler->GetSchedule(), settings->IsSchedulerEnabled(), ReadPlans(*storage, path)};
}

// Queued: the scheduler may be in the middle of changing its schedule.
void RunSession::PostTopUp() {
    if (topUpPosted || shuttingDown) {
        return;
    }
    topUpPosted = true;
    QMetaObject::invokeMethod(
        &context,
        [this] {
            topUpPosted = false;
            edits.WhenSafe([this] { KeepPlansTopped(); });
        },
        Qt::QueuedConnection);
}

void RunSession::KeepPlansTopped() {
    try {
        QStringList notes;
        const auto next = TopUpPlans(Current(), clock.Now(), notes);
        plansFailure.clear();
        for (const QString& note : notes) {
            printer.Line(QStringLiteral("plans: %1").arg(note));
        }
        if (next) {
            ApplyState(*next);
        }
    } catch (const std::exception& error) {
        const QString failure = QString::fromLocal8Bit(error.what());
        if (failure != plansFailure) {
            plansFailure = failure;
            printer.Line(QStringLiteral("plans not kept up: %1").arg(failure));
        }
    }
}

// Someone changed the file, or it went away. This process holds the schedule and edits come
// over the control socket, so a change here is a hand edit, or this process's own write.
void RunSession::OnFileChanged() {
    if (!QFileInfo::exists(path) || storage->HasPending()) {
        // Removed, or storage failed: what this process holds goes back when it can.
        const bool missing = !QFileInfo::exists(path);
        if ((missing ? storage->Rewrite() : storage->Flush()) && missing) {
            printer.Line(QStringLiteral("settings file was gone: wrote the running schedule to %1")
                             .arg(path));
        }
        return;
    }
    const RetryingSettingsManager::Snapshot before = storage->Hold();
    try {
        if (!storage->Reload()) {
            readFailure.clear();
            return;
        }
        const ScheduleState stored{ReadSchedule(*settings, *storage, path),
                                   settings->IsSchedulerEnabled(), ReadPlans(*storage, path)};
        readFailure.clear();
        printer.ScheduleReloaded(stored.enabled, stored.schedule.size());
        ApplyState(stored);
        TellStatus(scheduler->IsEnabled(), scheduler->GetSchedule().size());
    } catch (const std::exception& error) {
        storage->Restore(before);
        const QString failure = QString::fromLocal8Bit(error.what());
        if (failure != readFailure) {
            readFailure = failure;
            printer.Line(
                QStringLiteral("settings unreadable, kept the running schedule: %1").arg(failure));
        }
    }
}

void RunSession::OnStorage(const std::optional<std::string>& failure) {
    if (failure) {
        printer.Line(QStringLiteral("settings not saved: %1; the running schedule is kept and "
                                    "saving is retried every %2 s")
                         .arg(QString::fromLocal8Bit(failure->c_str()))
                         .arg(STORAGE_RETRY.count()));
    } else {
        printer.Line(QStringLiteral("settings saved again to %1").arg(path));
    }
}

}  // namespace Vexlor::ScheduleTool
