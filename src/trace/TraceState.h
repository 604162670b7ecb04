// State shared by the trace registry and the trace output: the handler table, the trace
// file, and the one-time load of the start-up settings.
#pragma once

#include <cstdint>
#include <fstream>
#include <map>
#include <string>

namespace Tarvo::Zel {
class DebugHandler;

// Registered handlers by name, ascending byte-wise; several may share a name. Created on
// first use under the library lock and never freed.
using HandlerMap = std::multimap<std::string, DebugHandler*>;
HandlerMap& handlerMap();

// Applies the library's start-up settings once: "Tarvo*/01", then TRACE, then the default
// line format and TRACEFORMAT, opening TRACEFILE on the way. Every public entry point calls
// it first, so that modules whose static initialisers obtain handlers see the settings
// whatever order the translation units are initialised in.
void ensureTraceLoaded();

// (Re)opens the trace file from TRACEFILE. Needs the library lock.
void applyTraceFile();

// Digits of the levels set in `mask`, ascending ("01"), or "*" when `all` is true.
std::string levelsText(uint32_t mask, bool all);

}  // namespace Tarvo::Zel
