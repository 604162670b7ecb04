// The Platform entry points of the event layer; each forwards to the libevent layer.
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"

namespace Tarvo::Platform {

bool FdEventHandler::handleFdException(int) {
  return false;
}

bool TimeoutHandler::handleTimeoutException() {
  return false;
}

bool CallbackHandler::handleCallbackException() {
  return false;
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler) {
  return getLeFdControl(handler);
}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler) {
  return getLeTimerControl(handler);
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler) {
  return getLeCallbackControl(handler);
}

void doEventLoop() {
  doLeEventLoop();
}

void doEventLoop(double seconds) {
  doLeEventLoop(seconds);
}

void doEventLoopInWaitfor(double seconds) {
  doLeEventLoopInWaitfor(seconds);
}

void setFastForward(bool on) {
  setLeFastForward(on);
}

bool fastForward() {
  return leFastForward();
}

void refCountingEnabledIs(bool) {
  debugAndThrowAssertException(
      nullptr, 0, "Tarvo::Platform::refCountingEnabledIs() not available in libTarvo.so",
      "Platform", __func__, __LINE__);
}

bool refCountingEnabled() {
  debugAndThrowAssertException(nullptr, 0,
                               "Tarvo::Platform::refCountingEnabled() not available in libTarvo.so",
                               "Platform", __func__, __LINE__);
}

}  // namespace Tarvo::Platform
