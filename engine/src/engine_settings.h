// The library's own keys in the agent's baseConfig.ini, section [engine].
#ifndef BASEENG_ENGINE_SETTINGS_H
#define BASEENG_ENGINE_SETTINGS_H

#include <cstddef>
#include <string>
#include <vector>

namespace baseeng {

struct EngineSettings {
    // Seconds in one unit of learnTime; minutes unless configured.
    unsigned learnUnitSeconds = 60;
    // Features one model keeps; past it learning stops growing the model.
    std::size_t maxFeatures = 100000;
    // Size at which a model's origin-log file is closed and a new one begun.
    std::size_t originLogMaxBytes = 4u * 1024u * 1024u;
    // Repeats of an alarm within this many seconds after it go out as one
    // alarm with a count when the window ends; 0 reports each at once.
    unsigned alarmRepeatWindowSeconds = 300;
};

// Reads the [engine] section of an INI file over the defaults in settings.
// False when the file can't be read. A bad value keeps its default and adds
// a line to problems.
bool readEngineSettings(const std::string& path, EngineSettings& settings, std::vector<std::string>& problems);

}  // namespace baseeng

#endif
