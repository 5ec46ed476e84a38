// A command line as a stable feature: the executable and the shape of its
// arguments, with what varies per request folded.
#ifndef BASEENG_NORMALISE_COMMAND_H
#define BASEENG_NORMALISE_COMMAND_H

#include <cstddef>
#include <functional>
#include <set>
#include <string>

namespace baseeng {

class FeatureMemo;

// The directories holding files a model learned: a file there named in an
// argument is data the application works on, whatever its name. Ordered, so
// that a directory in a folded line is looked up without a copy.
using DirectorySet = std::set<std::string, std::less<>>;

// executable: the program run, exact; when empty, the first word of the
// command line. The first word of the command line is its name as invoked
// and is otherwise skipped. learned and memo (folded directories) may be null.
// line[lineSize] must be readable and '\0' (a std::string's terminator):
// it ends the scans of words and blanks without a bound check.
void appendNormalisedCommand(std::string& out, const char* executable, std::size_t executableSize, const char* line,
                             std::size_t lineSize, const DirectorySet* learned, FeatureMemo* memo = nullptr);
std::string normaliseCommand(const std::string& executable, const std::string& commandLine,
                             const DirectorySet* learned);

}  // namespace baseeng

#endif
