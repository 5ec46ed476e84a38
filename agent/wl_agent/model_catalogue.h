// The models the module keeps in its catalogue files (what the manager
// defined: name, application, executable, ports, learning period).
#ifndef WL_AGENT_MODEL_CATALOGUE_H
#define WL_AGENT_MODEL_CATALOGUE_H

#include <string>
#include <vector>

namespace wlagent {

struct CatalogueEntry {
    std::string engine;  // "host" or "app"
    std::string name;
    std::string app;
    std::string path;
    std::string ports;  // as written: "80,443"
    long studyTime = 0;
    bool alarm = false;
};

// Both files under <root>/var/base; a missing file has no models. Sections
// the module itself would skip are skipped here too.
std::vector<CatalogueEntry> readCatalogue(const std::string& root);
std::vector<CatalogueEntry> readCatalogueFile(const std::string& path, const std::string& head,
                                              const std::string& engine);

}  // namespace wlagent

#endif
