/* Each module's small control point: a status handler, a run-status
 * handler, a reserved slot and a command handler, registered by name. */
#ifndef IPC_HANDLER_H
#define IPC_HANDLER_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*ipc_status_fn)(unsigned long ctx1, unsigned long ctx2, unsigned int cmd);
typedef void (*ipc_command_fn)(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const char* msg);

typedef struct ipc_handler_table {
    ipc_status_fn status;
    ipc_status_fn run_status;
    void* reserved;
    ipc_command_fn command;
} ipc_handler_table;

/* 0 on success, an error number otherwise. The table must outlive the
 * registration. Commands for the name run on the registering thread. */
int reg_ipc_handler(const char* name, ipc_handler_table* table);
void unreg_ipc_handler(void);

/* Command numbers a client sends to the point. */
enum { IPC_HANDLER_CMD_STATUS = 1, IPC_HANDLER_CMD_RUN_STATUS = 2, IPC_HANDLER_CMD_COMMAND = 4 };

#ifdef __cplusplus
}
#endif

#endif
