// A file path as a stable feature: variable runs in each segment folded, the
// directories and the extension kept.
#ifndef BASEENG_NORMALISE_PATH_H
#define BASEENG_NORMALISE_PATH_H

#include <cstddef>
#include <string>

namespace baseeng {

class FeatureMemo;

// Writes the folded path at out, which has room for foldedBound(size) bytes
// (variable_runs.h), and returns the end; placeholder is set when one was
// written. memo, when given, keeps folded directories: an application's
// files vary in their names far more than in their directories.
char* foldPath(char* out, const char* path, std::size_t size, FeatureMemo* memo, bool& placeholder);
void appendNormalisedPath(std::string& out, const char* path, std::size_t size, FeatureMemo* memo = nullptr);
std::string normalisePath(const std::string& path);

// The directory of a path, without the last slash; empty when there is none.
std::string directoryOf(const std::string& path);

}  // namespace baseeng

#endif
