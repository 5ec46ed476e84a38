/* The agent's asset collector: lists of the host's assets as JSON, by kind
 * (3 processes, 5 open ports, 7 and 9 applications). */
#ifndef ASSET_COLLECTION_H
#define ASSET_COLLECTION_H

#ifdef __cplusplus
extern "C" {
#endif

struct cJSON;

enum { ASSET_KIND_PROCESS = 3, ASSET_KIND_OPEN_PORT = 5, ASSET_KIND_APP = 7, ASSET_KIND_APP_EXTRA = 9 };

/* A kind comes from asset_publish_v2 or, when nothing is published for it,
 * from the file "@/../var/asset/<kind>.json" (its age is the file's).
 * All functions are thread-safe. */

/* Non-zero when that kind has been collected. flags: unused. */
int get_asset_info_state_v2(int kind, int flags);
/* 0 and a tree owned by the caller when the kind is available and no older
 * than max_age seconds (no limit when max_age isn't above 0); non-zero
 * otherwise. flags: unused. */
int get_asset_result_v2(int kind, int max_age, struct cJSON** result, int flags);

/* Publishes a kind's list (a JSON text with a "list" array); it is then
 * ready. Null clears it. 0 on success, -1 for text that isn't JSON. */
int asset_publish_v2(int kind, const char* json);

#ifdef __cplusplus
}
#endif

#endif
