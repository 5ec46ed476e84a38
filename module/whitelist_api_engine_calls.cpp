#include "whitelist_api_engine_calls.h"

#include "base.h"
#include "rasp.h"

BaseInterface* whitelist_base_library() { return base_engine ? base_engine->m_baseEngine : nullptr; }

RaspInterface* whitelist_rasp_library() { return rasp_engine ? rasp_engine->m_raspEngine : nullptr; }

void whitelist_base_parse_input(_USR_INPUT* input) {
    if (base_engine) base_engine->parseInput(input);
}

void whitelist_rasp_parse_input(_USR_INPUT* input) {
    if (rasp_engine) rasp_engine->parseInput(input);
}

bool whitelist_base_deal_alarm(const std::string& text) { return base_engine && base_engine->dealAlarmEvent(text); }

bool whitelist_rasp_deal_alarm(const std::string& text) { return rasp_engine && rasp_engine->dealAlarmEvent(text); }
