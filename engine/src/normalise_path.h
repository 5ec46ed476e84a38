// A file path as a stable feature: variable runs in each segment folded, the
// directories and the extension kept.
#ifndef BASEENG_NORMALISE_PATH_H
#define BASEENG_NORMALISE_PATH_H

#include <cstddef>
#include <string>

namespace baseeng {

class FeatureMemo;

// memo, when given, keeps folded directories: an application's files vary
// in their names far more than in their directories.
void appendNormalisedPath(std::string& out, const char* path, std::size_t size, FeatureMemo* memo = nullptr);
std::string normalisePath(const std::string& path);

// The directory of a path, without the last slash; empty when there is none.
std::string directoryOf(const std::string& path);

}  // namespace baseeng

#endif
