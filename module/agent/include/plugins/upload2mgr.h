// The agent's upload service, _upload2mgr, found by symbol.
#ifndef WL_PLUGINS_UPLOAD2MGR_H
#define WL_PLUGINS_UPLOAD2MGR_H

// (channel 16, text, length without the NUL, mode 1): 0 or above on success.
typedef int (*upload2mgr_fn)(int channel, const char* text, int length, int mode);

enum { WL_UPLOAD_CHANNEL = 16, WL_UPLOAD_MODE = 1 };

#endif
