// Pieces both engines share: path resolution, thread start and naming, the
// host's IPv4 addresses, and the library steps whose logic is the same for
// both model interfaces (the start steps, the timing loop and the command
// read-back), defined once for BaseInterface and RaspInterface. Each takes
// the log source name of the engine it works for.
#ifndef WL_BASE_SUPPORT_H
#define WL_BASE_SUPPORT_H

#include <atomic>
#include <cstddef>
#include <set>
#include <string>

#include "base_interface.h"
#include "model_records.h"
#include "orv_lock_guard.h"
#include "orv_sync.h"

// Paths of the agent's tree resolve into this many bytes; longer ones are cut.
constexpr std::size_t kEnginePathSize = 260;
// A worker keeps three 66,732-byte records on its stack at once.
constexpr std::size_t kEngineThreadStackSize = 1024 * 1024;
// Pause before each event of a worker and each move of the delay thread.
constexpr unsigned int kEngineWorkerPauseUs = 100000;

std::string engine_resolve_path(const char* pattern);
// Starts fn on a thread with kEngineThreadStackSize of stack.
void engine_start_thread(orv_thread_t* thread, orv_thread_fn fn);
void engine_set_thread_name(const char* name);
// Adds every IPv4 address of the host, loopback included, to ips, and logs
// each.
void engine_collect_local_ips(const char* source, std::set<std::string>& ips);

// The start steps after the factory, the same for both engines: settings (when
// the file exists), the model directory and its load, the origin-log
// directory. False once a step failed and was logged; the caller then stops
// the engine.
template <class Library>
bool engine_prepare_library(const char* source, Library* library, const char* configPattern, const char* modelPattern,
                            const char* originLogPattern, std::string& modelSavePath, std::string& logSavePath);

// The timing loop of either engine, until running turns false.
template <class Library>
void engine_time_count(const char* source, Library* library, orv_mutex_t* engineLock, const std::atomic<bool>& running,
                       const std::string& modelSavePath, int modelReport, int statusReport);

// Tells the manager where a model stands after a command; 1 when the library
// was asked. The pointer is read under engineLock, as a stop clears it there.
template <class Library>
int engine_parse_input(const char* source, Library* const& library, orv_mutex_t* engineLock, _USR_INPUT* input,
                       int modelReport, int statusReport);

#endif
