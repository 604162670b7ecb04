// A first look at libTarvo's trace facility.
//
// Run it plain, then with the environment changed, and compare:
//   ./tarvo-demo                                   levels 0 and 1 of "Tarvo*" handlers
//   TRACE='TarvoDemo/*' ./tarvo-demo                every level of the demo's handler
//   TRACEFORMAT=time,level,func-name ./tarvo-demo   another line prefix
//   TRACEFILE=/tmp/demo.trace ./tarvo-demo          lines go to the file instead of stderr
#include <iostream>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"

namespace {

// A class that traces: it owns a handler named after itself.
class Greeter : public Tarvo::Debuggable {
 public:
  Greeter() : Tarvo::Debuggable("TarvoDemo") {}

  void greet(const std::string& who, int times) {
    TARVO_TRACE(debugHandler(), 1, "greeting " << who << " " << times << " times");
    for (int i = 0; i < times; ++i) {
      // Level 5 is off by default: this message is never even formatted.
      TARVO_TRACE(debugHandler(), 5, "hello " << who << " #" << i);
    }
  }
};

}  // namespace

int main() {
  Greeter greeter;
  greeter.greet("world", 3);

  std::cout << "Trace settings and handlers now in force:" << std::endl;
  Tarvo::Platform::dumpTarvoDebugMap();

  // Turn on level 5 at run time, as an operator would with TRACE=TarvoDemo/5.
  Tarvo::Platform::setupTarvoDebug("TarvoDemo/5");
  greeter.greet("operator", 2);

  try {
    Tarvo::RuntimeException::throwException("something went wrong");
  } catch (const Tarvo::Exception& e) {
    TARVO_TRACE(greeter.debugHandler(), 0, "caught " << e.name() << ": " << e.message());
  }
  return 0;
}
