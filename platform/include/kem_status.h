/* The agent core's status word. */
#ifndef KEM_STATUS_H
#define KEM_STATUS_H

#ifdef __cplusplus
extern "C" {
#endif

int get_kem_status(void);
void set_kem_status(int value);

#ifdef __cplusplus
}
#endif

#endif
