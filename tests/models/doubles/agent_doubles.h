// Link-time stand-ins for what model management takes from the rest of the
// agent: asset lists, the run-time symbol look-up and the port filter list.
// The upload, the collector's filter and the module context are the shared
// fakes (module_fakes.h); the file-upload service is the agent symbol of
// tests/support (agent_symbols.h).
#ifndef WL_TESTS_MODELS_AGENT_DOUBLES_H
#define WL_TESTS_MODELS_AGENT_DOUBLES_H

#include <string>

#include "agent_symbols.h"
#include "module_fakes.h"

namespace models_double {

void reset_agent();

// Asset lists by kind, as JSON text; a kind without text is unavailable.
void set_asset(int kind, const std::string& json);

// When set, dll_get_addr_ex finds nothing.
void set_symbols_missing(bool missing);

// Adds a port to the context's filter list (nodes live until reset_agent).
void add_filter_port(int port);

}  // namespace models_double

#endif
