// What model management keeps from one call to the next, apart from the model
// lists: not part of the module's interface, only reset between test cases.
#ifndef WL_WHITELIST_API_STATE_H
#define WL_WHITELIST_API_STATE_H

#include "file_upload_utils.h"

// Whether each tracking pass has had its first call, which does nothing.
extern bool g_base_open_process_called;
extern bool g_rasp_open_process_called;

// _add_upload_file as the origin-log upload found it, shared by both
// directories; null until a look-up succeeds.
extern add_upload_file_fn g_add_upload_file;

#endif
