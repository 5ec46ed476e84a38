// The library's log lines, all under the source name "vrccl".
#ifndef VRCCL_LOG_H
#define VRCCL_LOG_H

#include "orv_log.h"

#define VRCCL_LOG(level, ...) error_output((level), "vrccl", __LINE__, __VA_ARGS__)

#endif
