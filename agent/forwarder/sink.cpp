#include "sink.h"

#include <fstream>
#include <sstream>

namespace wlforward {

bool readUpload(const Upload& file, std::string& content, std::string& error) {
    std::ifstream in(file.path, std::ios::binary);
    if (!in) {
        error = "cannot read " + file.path;
        return false;
    }
    std::ostringstream whole;
    whole << in.rdbuf();
    content = whole.str();
    return true;
}

}  // namespace wlforward
