// Origin-log upload through the agent's file-upload service.
#ifndef WL_WHITELIST_IMPL_ORGLOG_H
#define WL_WHITELIST_IMPL_ORGLOG_H

#include "file_upload_utils.h"

// The looked-up _add_upload_file, shared by both directories; null until a
// look-up succeeds.
extern add_upload_file_fn g_add_upload_file;

#endif
