// A model's origin log: "<dir>/<stem>.origin.json", a JSON array that is
// closed again after every append, so the file is whole whenever the upload
// service picks it up. An append rewrites only the closing bracket.
#ifndef BASEENG_ORIGIN_LOG_FILE_H
#define BASEENG_ORIGIN_LOG_FILE_H

#include <cstddef>
#include <string>

namespace baseeng {

// Appends one array element (JSON text). A file that reached maxBytes, or
// whose end is not the array's, is moved aside to "<stem>.origin.<n>.json"
// and a new file begun. 0, or -1 when the directory can't be written.
int appendOriginLog(const std::string& dir, const std::string& stem, const std::string& element, std::size_t maxBytes);

}  // namespace baseeng

#endif
