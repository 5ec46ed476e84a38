// Upload to the manager.
#ifndef WL_WHITELIST_UPLOAD_H
#define WL_WHITELIST_UPLOAD_H

// Report types.
enum {
    WL_REPORT_MODEL = 0,
    WL_REPORT_LEARN_STATUS = 1,
    WL_REPORT_ALARM = 2,
    WL_REPORT_RASP_MODEL = 3,
    WL_REPORT_RASP_LEARN_STATUS = 4,
    WL_REPORT_RASP_ALARM = 5,
    WL_REPORT_OPEN_PROC = 6,
};

extern "C" {
// 0 handed over; 2 bad input; 3 envelope failure; -1 upload failed; -100 no
// header symbol; other: the header function's own code. text (JSON) stays the
// caller's.
int whitelist_upload_data(const char* text, int type);
// 0, or orv_mutex_init's error; a second call does nothing and returns 0.
int whitelist_init_upload_lock(void);
// No result; uploads after it run without the lock.
void whitelist_uninit_upload_lock(void);

// dlsym over the global scope for a null handle; null for a null or empty
// name. name stays the caller's.
void* dll_get_addr_ex(void* handle, const char* name);
// No result: dlclose unless handle is null.
void dll_close_ex(void* handle);
// Does nothing; always null.
void* dll_open_ex(void);
}

#endif
