// The agent's module-switch record; only the words at bytes 12 and 32 have a
// meaning for the module.
extern "C" {
__attribute__((visibility("default"))) unsigned char g_ms_conf[64] = {};
}
