// Records of models and commands, passed between the task functions, the
// engines and the model library.
#ifndef WL_MODEL_RECORDS_H
#define WL_MODEL_RECORDS_H

#include <map>
#include <set>
#include <string>
#include <vector>

typedef std::set<unsigned long long> pid_set;
typedef std::map<std::string, pid_set> path_pid_map;

// One model as the manager defined it; one catalogue entry.
struct base_init_st {
    std::string model_name;
    std::string app_name;
    std::string process_path;
    int study_times = 0;
    bool alarm = false;
    std::set<unsigned long long> port;
};

// One parsed model command.
struct task_input_st {
    int opr_code = 0;
    int study_time = 0;
    bool re_study = false;
    bool model_switch = false;
    std::set<std::string> model_names;
    std::vector<base_init_st> models;
};

// The command record for an engine and for the model library. Field order and
// widths are the library's contract.
struct _USR_INPUT {
    int oprType;
    int oprReserved;
    std::string modelName;
    std::vector<std::string> strListA;
    std::vector<std::string> strListB;
    std::vector<std::string> strListC;
    unsigned short learnTime;
    unsigned short switchValue;
    int inputReserved;
    path_pid_map processMap;
    path_pid_map childProcessMap;
    path_pid_map childProcessMapDup;

    _USR_INPUT();
    ~_USR_INPUT();
};

// oprType values.
enum {
    USR_OPR_INIT = 0,
    USR_OPR_RELEARN = 1,
    USR_OPR_QUERY = 2,
    USR_OPR_STUDY_TIME = 3,
    USR_OPR_SWITCH = 4,
    USR_OPR_DELETE = 8,
};

// switchValue 2: the model's application is not running.
enum { USR_SWITCH_OFF = 0, USR_SWITCH_ON = 1, USR_SWITCH_NOT_RUNNING = 2 };

// Parent process id to the ids of its direct children, from one walk of /proc.
typedef std::map<unsigned long long, std::set<unsigned long long>> process_tree;

extern std::vector<base_init_st>* g_model_array;
extern std::vector<base_init_st>* g_rasp_model_array;
// Every process id told to the collector, with the seen mark of a tracking pass.
extern std::map<unsigned long long, bool>* g_model_pid;

#endif
