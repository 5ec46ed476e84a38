/* Small key/value messages for IPC: a name and binary fields, packed as
 * "XMSG", u16 name length, name, u16 field count, then per field u16 key
 * length, key, u32 value length, value (little-endian). */
#ifndef ORV_XMSG_H
#define ORV_XMSG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void* orv_xmsg_t;

orv_xmsg_t orv_xmsg_new(const char* name);
int orv_xmsg_add(orv_xmsg_t msg, const char* key, size_t key_len, const void* value, size_t value_len);
int orv_xmsg_pack_size(orv_xmsg_t msg);
/* Bytes written, negative on failure (buffer too small). */
int orv_xmsg_pack(orv_xmsg_t msg, void* buf, size_t size);
/* Reverse of pack; null for a malformed buffer. */
orv_xmsg_t orv_xmsg_unpack(const void* buf, size_t size);
const char* orv_xmsg_name(orv_xmsg_t msg);
/* The value of the first field with that key, null if none. */
const void* orv_xmsg_get(orv_xmsg_t msg, const char* key, size_t* value_len);
void orv_xmsg_release(orv_xmsg_t msg);

#ifdef __cplusplus
}
#endif

#endif
