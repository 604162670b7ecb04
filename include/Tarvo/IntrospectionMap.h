// A process-wide table from a type name to a function that renders a value of that type as
// text. Platform::ValuePrinter (Tarvo/UtilHelpers.h) consults it to print values of types it
// knows only by name, such as objects another process placed in shared memory.
//
// Thread rules: both operations hold the library lock (Platform::loco()) for their whole
// duration, so they may be called from any thread, also during static initialisation.
#pragma once

#include <string>

namespace Tarvo {

// The process-wide table of value printers by type name; see the top of this file.
class IntrospectionMap {
 public:
  // Renders the value at the given address.
  using Printer = const std::string (*)(const void* value);

  // Registers `printer` for `typeName`, replacing an earlier registration of that name.
  static void insert(const std::string& typeName, Printer printer);

  // The printer registered for `typeName`, or null.
  static Printer lookup(const std::string& typeName);
};

}  // namespace Tarvo
