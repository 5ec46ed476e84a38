// Builders for the library's inputs, shared by the engine_lib tests.
#ifndef ENGINE_TEST_SUPPORT_H
#define ENGINE_TEST_SUPPORT_H

#include <memory>
#include <string>
#include <vector>

#include "base_interface.h"

namespace enginetest {

std::unique_ptr<BaseInterface> makeBaseEngine();
std::unique_ptr<RaspInterface> makeRaspEngine();

// narrow <-> record text, one element per byte.
template <std::size_t N>
void setText(wchar_t (&field)[N], const std::string& text) {
    std::size_t n = text.size() < N - 1 ? text.size() : N - 1;
    for (std::size_t i = 0; i < n; ++i) field[i] = static_cast<wchar_t>(static_cast<signed char>(text[i]));
    field[n] = 0;
}
template <std::size_t N>
std::string getText(const wchar_t (&field)[N]) {
    std::string text;
    for (std::size_t i = 0; i < N && field[i] != 0; ++i) text.push_back(static_cast<char>(field[i] & 0xff));
    return text;
}

// A model command as the task functions build it.
std::unique_ptr<_USR_INPUT> command(int oprType, const std::string& name, unsigned short learnTime = 0,
                                    unsigned short switchValue = 0);
// oprType 0 with the application at path running as pids.
std::unique_ptr<_USR_INPUT> startCommand(const std::string& name, unsigned short learnTime,
                                         const std::string& path, std::vector<unsigned long long> pids);

// Cleared host records of each kind, acted by pid (the parent for a creation).
std::unique_ptr<_BASE_EVENTINFO> blankEvent(unsigned eventType, unsigned long long pid,
                                            const std::string& actorPath = "/usr/bin/app");
std::unique_ptr<_BASE_EVENTINFO> processCreation(unsigned long long parentPid, const std::string& childPath);
std::unique_ptr<_BASE_EVENTINFO> fileEvent(unsigned long long pid, const std::string& file, unsigned type = 6);
std::unique_ptr<_BASE_EVENTINFO> connection(unsigned long long pid, const std::string& ip, unsigned port,
                                            const std::string& protocol = "tcp");
std::unique_ptr<_BASE_EVENTINFO> dnsQuery(unsigned long long pid, const std::string& name);
std::unique_ptr<_BASE_EVENTINFO> listening(unsigned long long pid, unsigned port, const std::string& protocol = "tcp");

// A runtime-application record at the converter's defaults, then the action.
std::unique_ptr<_RASP_EVENTINFO> raspEvent(unsigned long long pid, unsigned short actionType,
                                           const std::string& subject);

std::string period(const _BASE_EVENTINFO& event);
std::string modelName(const _BASE_EVENTINFO& event);

// A fresh directory, removed with everything in it at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::vector<std::string> files() const;  // names, sorted
    std::string read(const std::string& name) const;
    void write(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

}  // namespace enginetest

#endif
