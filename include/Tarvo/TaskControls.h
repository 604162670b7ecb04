// Platform controls backed by scheduler tasks.
//
// These overloads of the Platform factories hand out the same control interfaces as the
// event-loop ones (Tarvo/Platform.h), for the same handler objects, but each control is a task
// of `scheduler` at `priority`, named `name`. An expiry, a requested callback or a readiness
// makes the task runnable; the handler is called when the scheduler
// picks it, subject to its quantum, with the task's statistics kept like any other task's.
// Code written against the controls thus runs inside the cooperative scheduler unchanged.
//
// Operation mapping:
//  - timer control (a TimerTask): setTimeout(s) is scheduleTaskDelay(s), so 0 makes the task
//    runnable at once, +infinity disarms, and a NaN delay ends the process; delTimeout() is
//    stopTimerTask(); remainingTimeout() is timerRemaining(), +infinity also once the expiry
//    has made the task runnable. The task's run calls timeout().
//  - callback control: requestCallback() schedules the task, cancelCallback() unschedules it,
//    pendingCallback() is whether it is scheduled; the task's run calls callback().
//  - fd control (a FileDescriptorTask): setReads/setWrites/setFd/getFd watch as that task
//    does; delFd() and clearEvents() both stop watching and forget the descriptor (so
//    clearEvents() here unbinds, unlike the event-loop control). Reads stay watched; each
//    write delivery switches write watching off first, so re-arm with setWrites(true).
//    The runs call readFdEvent(getFd()) / writeFdEvent(getFd()).
//
// Exceptions. The fd control asks the handler's handleFdException(fd) about any exception
// from readFdEvent/writeFdEvent, while that exception is current: true swallows it and the
// next readiness is delivered normally; false passes it on to the scheduler run and out of
// the event-loop call, and the control is then spent: like any FileDescriptorTask whose hook
// threw, each later delivery throws "Executing task already set". The timer and callback
// controls let exceptions from timeout() and callback() pass on without asking
// handleTimeoutException() / handleCallbackException(); they stay usable, and the next
// setTimeout() or request runs the handler again.
//
// The handler must not be null (AssertException) and must outlive the control; the scheduler
// must not be null (the process ends with "Need a TaskScheduler"). Thread rules are the
// scheduler's: create, drive and destroy the control on the thread of its root.
#pragma once

#include <memory>
#include <string>

#include "Tarvo/Platform.h"
#include "Tarvo/TaskPriority.h"

namespace Tarvo {

class TaskScheduler;

namespace Platform {

// A timer, callback or fd control for `handler` that is a task of `scheduler`; see the top of
// this file.
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TaskScheduler> scheduler,
                                              TaskPriority priority, std::string name);
std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler,
                                                    std::shared_ptr<TaskScheduler> scheduler,
                                                    TaskPriority priority, std::string name);
std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                        std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, std::string name);

}  // namespace Platform
}  // namespace Tarvo
