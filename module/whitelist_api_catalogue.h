// The model catalogue files: one ini file per engine that keeps the models the
// manager defined across restarts, and the memory list it fills.
#ifndef WL_WHITELIST_API_CATALOGUE_H
#define WL_WHITELIST_API_CATALOGUE_H

#include <vector>

#include "model_records.h"

struct model_catalogue_st {
    const char* path;          // "@"-relative file path
    const char* head_section;  // holds "count"
    bool rasp;                 // the runtime-application engine's catalogue
    std::vector<base_init_st>** list;
};

extern const model_catalogue_st g_base_catalogue;
extern const model_catalogue_st g_rasp_catalogue;

// Appends the file's models to the memory list; a missing file adds nothing.
void whitelist_load_catalogue(const model_catalogue_st& catalogue);
// Adds one model behind the file's own count, then to the memory list.
void whitelist_append_catalogue(const model_catalogue_st& catalogue, const base_init_st& record);
// Writes the file afresh from the memory list.
void whitelist_rewrite_catalogue(const model_catalogue_st& catalogue);

#endif
