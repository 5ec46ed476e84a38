#include "address_names.h"

#include <algorithm>
#include <vector>

#include "variable_runs.h"

namespace baseeng {

namespace {

// Enough for the services one application talks to; the oldest go first.
const std::size_t kMaxAddresses = 4096;

bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isAddressByte(char c) { return isHexDigit(c) || c == '.' || c == ':'; }

bool isIpv4(const std::string& text) {
    int parts = 0;
    std::size_t i = 0;
    while (i <= text.size()) {
        std::size_t start = i;
        unsigned value = 0;
        while (i < text.size() && isDigit(text[i]) && i - start < 3) {
            value = value * 10 + static_cast<unsigned>(text[i] - '0');
            ++i;
        }
        if (i == start || value > 255) {
            return false;
        }
        ++parts;
        if (i == text.size()) {
            break;
        }
        if (text[i] != '.') {
            return false;
        }
        ++i;
    }
    return parts == 4;
}

bool isIpv6(const std::string& text) {
    return std::count(text.begin(), text.end(), ':') >= 2 &&
           std::all_of(text.begin(), text.end(), [](char c) { return isAddressByte(c); });
}

}  // namespace

void AddressNames::rememberAnswer(const std::string& name, const std::string& answer) {
    if (name.empty()) {
        return;
    }
    std::size_t i = 0;
    while (i < answer.size()) {
        while (i < answer.size() && !isAddressByte(answer[i])) {
            ++i;
        }
        std::size_t start = i;
        while (i < answer.size() && isAddressByte(answer[i])) {
            ++i;
        }
        // A host name holding hex letters is no address: it must be whole.
        bool whole = (start == 0 || !isAlnum(answer[start - 1])) && (i == answer.size() || !isAlnum(answer[i]));
        std::string token = answer.substr(start, i - start);
        if (whole && (isIpv4(token) || isIpv6(token))) {
            remember(token, name);
        }
    }
}

void AddressNames::remember(const std::string& address, const std::string& name) {
    auto found = m_names.find(address);
    if (found != m_names.end()) {
        found->second = name;
        return;
    }
    if (m_names.size() >= kMaxAddresses) {
        m_names.erase(m_order.front());
        m_order.pop_front();
    }
    m_names.emplace(address, name);
    m_order.push_back(address);
}

const std::string* AddressNames::nameOf(const std::string& address) const {
    auto found = m_names.find(address);
    return found == m_names.end() ? nullptr : &found->second;
}

void AddressNames::clear() {
    m_names.clear();
    m_order.clear();
}

void AddressNames::write(JsonWriter& writer) const {
    std::vector<std::pair<std::string, std::string>> sorted(m_names.begin(), m_names.end());
    std::sort(sorted.begin(), sorted.end());
    writer.StartObject();
    for (const auto& entry : sorted) {
        putString(writer, entry.first.c_str(), entry.second);
    }
    writer.EndObject();
}

void AddressNames::read(const rapidjson::Value& object) {
    clear();
    if (!object.IsObject()) {
        return;
    }
    for (const auto& member : object.GetObject()) {
        if (member.value.IsString()) {
            remember(std::string(member.name.GetString(), member.name.GetStringLength()),
                     std::string(member.value.GetString(), member.value.GetStringLength()));
        }
    }
}

}  // namespace baseeng
