// Shared between the log front end and the per-thread file bindings.
#ifndef KEMBASE_LOG_INTERNAL_H
#define KEMBASE_LOG_INTERNAL_H

#include <cstddef>

namespace kembase {

// Appends one finished line to the calling thread's log file, or to the
// process default when the thread has none. Nothing happens without either.
void autolog_write(const char* data, size_t len);

}  // namespace kembase

#endif
