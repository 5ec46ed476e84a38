// One JSON file per model in the model directory.
#ifndef BASEENG_MODEL_FILES_H
#define BASEENG_MODEL_FILES_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "behaviour_model.h"

namespace baseeng {

// A file-system-safe stem for a model name; distinct names give distinct stems.
std::string fileStemOf(const std::string& modelName);

// Writes each (model name, data text) atomically and removes the model files
// of models no longer present. 0, or -1 when the directory can't be written.
int writeModelFiles(const std::string& dir, const std::vector<std::pair<std::string, std::string>>& texts);

// Reads every model file of the directory; unreadable or malformed files are
// skipped with a log. -1 only when the directory can't be opened.
int readModelFiles(const std::string& dir, std::size_t maxFeatures, std::vector<BehaviourModel>& models);

}  // namespace baseeng

#endif
