// Model management: catalogue, commands, alarm feedback, open-process
// tracking, collector filter, engine init and uninit.
#ifndef WL_WHITELIST_API_H
#define WL_WHITELIST_API_H

#include <string>

#include "model_records.h"

struct cJSON;

// The results are named in whitelist_impl.h (WL_TASK_*) and base_interface.h
// (WL_INTERACT_*). A command tree (root) stays the caller's: nothing here
// frees or keeps it.
extern "C" {
// WL_TASK_OK; WL_TASK_REFUSED when the library refused any model (the others
// still start); WL_TASK_BAD_COMMAND for a null or unparsable command.
int whitelist_base_task_start(cJSON* root);
int whitelist_rasp_task_start(cJSON* root);
// The result for the last name: WL_TASK_OK, or WL_TASK_REFUSED when the library
// refused it; WL_TASK_BAD_COMMAND for a null or unparsable command.
int whitelist_base_task_interact(int opr, cJSON* root);
int whitelist_rasp_task_interact(int opr, cJSON* root);
// As interact, and WL_INTERACT_DELETE_ANYWAY when the library gave it for the
// last name (the model is removed all the same).
int whitelist_base_task_delete(int opr, cJSON* root);
int whitelist_rasp_task_delete(int opr, cJSON* root);
// WL_TASK_OK; WL_TASK_REFUSED without a data.list array; WL_TASK_BAD_COMMAND
// for a null root, no memory, or an engine that refused its alarms. opr unused.
int whitelist_base_task_feedback(int opr, cJSON* root);

// No result: append the catalogue file's models to the memory list.
void whitelist_base_load_model_data(void);
void whitelist_rasp_load_model_data(void);

// Always 0 (no result for the rasp pass): the first call does nothing, later
// ones refresh each model's processes; the base pass also the collector's filter.
int whitelist_base_update_open_process(void);
void whitelist_rasp_update_open_process(void);

// No result: tells the collector every watched pid again.
void reload_vrccl_filter(void);
// 1 when the engine (and, for the base one, the bus subscriber) started, 0 if not.
int whitelist_base_engine_init(void);
int whitelist_rasp_engine_init(void);
// No result: stop the engine (and the subscriber); nothing in the module calls them.
void whitelist_base_engine_uninit(void);
void whitelist_rasp_engine_uninit(void);

// 0 with the zero-terminated path in the caller's buffer of size bytes, -1
// for a null buffer or an unreadable link.
int get_process_path_by_pid(int pid, char* buffer, int size);
// The parent's id, or 0 when /proc does not tell.
int get_process_parentid(int pid);

// ini_file_get read as a number: decimal, 0x hexadecimal or 0 octal; 0 when
// the key is missing or no number. The handle and texts stay the caller's.
unsigned long long ini_file_get_number(void* handle, const char* section, const char* key);
}

// WL_TASK_OK; WL_TASK_REFUSED without a numeric opr_code or a data object;
// WL_TASK_BAD_COMMAND when list is no array. Fills the caller's input.
int whitelist_parse_task_input(cJSON* root, task_input_st* input);
// No result: appends a copy of record to the runtime-application catalogue.
void whitelist_rasp_save_model(const base_init_st& record);
// A new record for the named model; an unknown opr leaves it as constructed.
_USR_INPUT whitelist_build_interact_input(int opr, const std::string& name, const task_input_st& input);
// Parents to children from one walk of /proc; empty when /proc can't be read.
process_tree whitelist_scan_process_tree();
// No result: adds the ids listening on the model's ports to the caller's pids.
void whitelist_get_listen_pids(const base_init_st& record, pid_set& pids);
// The children of roots found in tree; they are also filed by path into the
// caller's input (pass 0 childProcessMap, otherwise childProcessMapDup).
pid_set whitelist_collect_child_process(_USR_INPUT& input, const pid_set& roots, process_tree tree, int pass);
// A new start record for the model; USR_OPR_SWITCH when nothing listens.
_USR_INPUT whitelist_build_model_input(const base_init_st& record, const process_tree& tree);
// Appends the ports, comma-separated, to the caller's text and returns a copy of it.
std::string port_set_to_string(const std::set<unsigned long long>& ports, std::string& text);
// The ports of a comma-separated list; cuts the caller's text apart (strtok_r).
std::set<unsigned long long> parse_port_string(char* text);

#endif
