// Model management: catalogue, commands, alarm feedback, open-process
// tracking, collector filter, engine init and uninit.
#ifndef WL_WHITELIST_API_H
#define WL_WHITELIST_API_H

#include <string>

#include "libbase/model_records.h"

struct cJSON;

extern "C" {
int whitelist_base_task_start(cJSON* root);
int whitelist_rasp_task_start(cJSON* root);
int whitelist_base_task_interact(int opr, cJSON* root);
int whitelist_rasp_task_interact(int opr, cJSON* root);
int whitelist_base_task_delete(int opr, cJSON* root);
int whitelist_rasp_task_delete(int opr, cJSON* root);
int whitelist_base_task_feedback(int opr, cJSON* root);

void whitelist_base_load_model_data(void);
void whitelist_rasp_load_model_data(void);

int whitelist_base_update_open_process(void);
void whitelist_rasp_update_open_process(void);

void reload_vrccl_filter(void);
int whitelist_base_engine_init(void);
void whitelist_base_engine_uninit(void);
int whitelist_rasp_engine_init(void);
void whitelist_rasp_engine_uninit(void);

int get_process_path_by_pid(int pid, char* buffer, int size);
int get_process_parentid(int pid);

// ini_file_get read as a number: decimal, 0x hexadecimal or 0 octal; 0 when
// the key is missing or no number.
unsigned long long ini_file_get_number(void* handle, const char* section, const char* key);
}

int whitelist_parse_task_input(cJSON* root, task_input_st* input);
void whitelist_rasp_save_model(const base_init_st& record);
_USR_INPUT whitelist_build_interact_input(int opr, const std::string& name, const task_input_st& input);
process_tree whitelist_scan_process_tree();
void whitelist_get_listen_pids(const base_init_st& record, pid_set& pids);
pid_set whitelist_collect_child_process(_USR_INPUT& input, const pid_set& roots, process_tree tree, int pass);
_USR_INPUT whitelist_build_model_input(const base_init_st& record, const process_tree& tree);
std::string port_set_to_string(const std::set<unsigned long long>& ports, std::string& text);
std::set<unsigned long long> parse_port_string(char* text);

#endif
