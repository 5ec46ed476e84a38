// The names a model's application looked up, by the addresses they gave:
// a connection is judged by the name, which stays when the addresses move.
#ifndef BASEENG_ADDRESS_NAMES_H
#define BASEENG_ADDRESS_NAMES_H

#include <cstddef>
#include <deque>
#include <string>
#include <unordered_map>

#include <rapidjson/document.h>

#include "json_text.h"

namespace baseeng {

class AddressNames {
public:
    // Every IPv4 or IPv6 address in a DNS answer text, whatever separates them.
    void rememberAnswer(const std::string& name, const std::string& answer);
    void remember(const std::string& address, const std::string& name);
    // Null when no answer of the model gave this address.
    const std::string* nameOf(const std::string& address) const;
    void clear();
    std::size_t size() const { return m_names.size(); }

    // {"address": "name", ...}, sorted so that equal memories give equal texts.
    void write(JsonWriter& writer) const;
    void read(const rapidjson::Value& object);

private:
    std::unordered_map<std::string, std::string> m_names;
    std::deque<std::string> m_order;  // oldest first, for the bound
};

}  // namespace baseeng

#endif
