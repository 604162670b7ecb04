// A client of the installed library: obtains a handler, traces, throws and catches.
#include <Tarvo/Debug.h>
#include <Tarvo/Exception.h>

#include <cstring>

int main() {
  Tarvo::Platform::DebugHandler* h = Tarvo::Platform::getDebugHandler("TarvoConsumer");
  TARVO_TRACE(h, 1, "consumer linked against the installed libTarvo");
  Tarvo::Platform::destroyDebugHandler(h);
  try {
    Tarvo::RuntimeException::throwException("expected");
  } catch (const Tarvo::Exception& e) {
    return std::strcmp(e.name(), "Tarvo::RuntimeException") == 0 ? 0 : 1;
  }
  return 1;
}
