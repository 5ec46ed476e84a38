// Where the process table is read, behind one seam: every path the module
// reads is this root followed by "/proc/...". The shipping build leaves it
// empty, so the paths are the system's own; tests point it at a tree they
// built, so the walk and the look-ups run over processes they made up.
#ifndef WL_PROC_H
#define WL_PROC_H

// Never null; a test that replaces it puts the old value back when done.
inline const char* g_wl_proc_root = "";

#endif
