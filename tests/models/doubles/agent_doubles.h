// Link-time stand-ins for what model management takes from the rest of the
// agent: asset lists, the collector's filter, the upload paths, the run-time
// symbol look-up and the module context.
#ifndef WL_TESTS_MODELS_AGENT_DOUBLES_H
#define WL_TESTS_MODELS_AGENT_DOUBLES_H

#include <map>
#include <string>
#include <vector>

namespace models_double {

struct Subscription {
    int action;
    int id;
    int reserved;
};

struct Upload {
    std::string text;
    int type;
};

struct FileUpload {
    int kind;
    std::string path;
};

void reset_agent();

// Asset lists by kind, as JSON text; a kind without text is unavailable.
void set_asset(int kind, const std::string& json);

const std::vector<Subscription>& subscriptions();
const std::vector<Upload>& uploads();
const std::vector<FileUpload>& file_uploads();

// When set, dll_get_addr_ex finds nothing.
void set_symbols_missing(bool missing);

// Adds a port to the context's filter list (nodes live until reset_agent).
void add_filter_port(int port);

}  // namespace models_double

#endif
