// The agent's settings: one INI file plus drop-ins in "<file>.d/*.conf".
// A drop-in overrides the main file key by key; drop-ins are read in name
// order, so the last one wins. Every part of the agent reads its own section.
#ifndef WL_AGENT_AGENT_CONFIG_H
#define WL_AGENT_AGENT_CONFIG_H

#include <memory>
#include <string>
#include <vector>

namespace wlagent {

class AgentConfig {
public:
    // A missing main file or drop-in directory is no problem (defaults hold);
    // a file that exists but cannot be read is named in problems.
    static AgentConfig load(const std::string& path, std::vector<std::string>& problems);
    AgentConfig();
    ~AgentConfig();
    AgentConfig(AgentConfig&&) noexcept;
    AgentConfig& operator=(AgentConfig&&) noexcept;

    // Null when no file sets the key.
    const char* get(const std::string& section, const std::string& key) const;
    const std::string& path() const { return m_path; }
    // The files read, main file first, in the order they take effect.
    std::vector<std::string> files() const;

    // Typed readers: a value that is not usable is named in problems as
    // "[section] key must be ..., not 'value'" and the fallback is returned.
    bool getBool(const std::string& section, const std::string& key, bool fallback,
                 std::vector<std::string>& problems) const;
    long getNumber(const std::string& section, const std::string& key, long low, long high, long fallback,
                   std::vector<std::string>& problems) const;
    std::string getText(const std::string& section, const std::string& key, const std::string& fallback) const;

private:
    struct Layer;
    std::string m_path;
    std::vector<std::unique_ptr<Layer>> m_layers;  // main file first
};

// Comma-separated items, blanks around each removed, empty items dropped.
std::vector<std::string> splitConfigList(const std::string& text);

}  // namespace wlagent

#endif
