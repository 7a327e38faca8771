#pragma once

#include <exception>
#include <memory>
#include <vector>

#include "core/EventPublisher.h"
#include "interfaces/CaptureTypes.h"
#include "interfaces/RecordTime.h"

namespace Vexlor::QK {

class ICaptureControllerObserver {
public:
    virtual ~ICaptureControllerObserver() = default;
    virtual void BeforeCaptureStarted(const std::shared_ptr<IProject>& project,
                                      const CaptureSettings& captureSettings,
                                      const std::vector<Provider>& providers) = 0;
    virtual void BeforeCapturePaused(CapturePauseReason reason) = 0;
    virtual void BeforeCaptureResumed() = 0;
    virtual void BeforeCaptureStopped(const std::shared_ptr<IProject>& project,
                                      const std::vector<Provider>& providers,
                                      CaptureStopReason reason) = 0;
    virtual void AfterCaptureStarted(const std::shared_ptr<IProject>& project,
                                     const CaptureSettings& captureSettings,
                                     const std::vector<Provider>& providers) = 0;
    virtual void AfterCapturePaused(CapturePauseReason reason) = 0;
    virtual void AfterCaptureResumed() = 0;
    virtual void AfterCaptureStopped(const std::shared_ptr<IProject>& project) = 0;
    virtual void OnCaptureError(const std::exception_ptr& error) = 0;
};

// Empty bodies, so that an observer overrides only what it needs.
class CaptureControllerObserver : public ICaptureControllerObserver {
public:
    void BeforeCaptureStarted(const std::shared_ptr<IProject>&, const CaptureSettings&,
                              const std::vector<Provider>&) override {}
    void BeforeCapturePaused(CapturePauseReason) override {}
    void BeforeCaptureResumed() override {}
    void BeforeCaptureStopped(const std::shared_ptr<IProject>&, const std::vector<Provider>&,
                              CaptureStopReason) override {}
    void AfterCaptureStarted(const std::shared_ptr<IProject>&, const CaptureSettings&,
                             const std::vector<Provider>&) override {}
    void AfterCapturePaused(CapturePauseReason) override {}
    void AfterCaptureResumed() override {}
    void AfterCaptureStopped(const std::shared_ptr<IProject>&) override {}
    void OnCaptureError(const std::exception_ptr&) override {}
};

class ISchedulerObserver {
public:
    virtual ~ISchedulerObserver() = default;
    // A scheduled recording has started; `record.duration` is what remains of it.
    virtual void OnScheduledCaptureStarted(const RecordTime& record) = 0;
};

class IScheduler : public Core::EventPublisher<ISchedulerObserver>,
                   public CaptureControllerObserver {
public:
    // Scheduling is on and at least one record is still to run.
    virtual bool IsEnabled() const = 0;
    virtual void SetEnabled(bool enable) = 0;
    // The records still to run, ascending by start.
    virtual RecordTimeList GetSchedule() const = 0;
    virtual void SetSchedule(const RecordTimeList& schedule) = 0;
};

}  // namespace Vexlor::QK
