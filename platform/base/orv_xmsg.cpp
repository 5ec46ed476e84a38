// Small named messages of binary fields, and their packed little-endian form.
#include "orv_xmsg.h"

#include <limits.h>
#include <stdint.h>
#include <string.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr char kMagic[4] = {'X', 'M', 'S', 'G'};
constexpr size_t kMaxU16 = 0xFFFF;
constexpr size_t kMaxU32 = 0xFFFFFFFFu;

struct XMsg {
    std::string name;
    std::vector<std::pair<std::string, std::string>> fields;
};

XMsg* from(orv_xmsg_t msg) { return static_cast<XMsg*>(msg); }

// Size of the packed form, or 0 when it can't be expressed in an int.
size_t packedSize(const XMsg& msg) {
    unsigned long long total = sizeof kMagic + 2 + msg.name.size() + 2;
    for (const auto& field : msg.fields) total += 2 + field.first.size() + 4 + field.second.size();
    return total > INT_MAX ? 0 : static_cast<size_t>(total);
}

class Writer {
public:
    explicit Writer(unsigned char* out) : m_out(out) {}
    void bytes(const void* data, size_t len) {
        if (len) memcpy(m_out, data, len);
        m_out += len;
    }
    void u16(size_t value) {
        m_out[0] = static_cast<unsigned char>(value & 0xFF);
        m_out[1] = static_cast<unsigned char>((value >> 8) & 0xFF);
        m_out += 2;
    }
    void u32(size_t value) {
        for (int i = 0; i < 4; ++i) m_out[i] = static_cast<unsigned char>((value >> (8 * i)) & 0xFF);
        m_out += 4;
    }

private:
    unsigned char* m_out;
};

// Every read checks the bytes left, so a short or lying buffer fails cleanly.
class Reader {
public:
    Reader(const unsigned char* in, size_t size) : m_in(in), m_left(size) {}
    bool bytes(std::string& out, size_t len) {
        if (len > m_left) return false;
        out.assign(reinterpret_cast<const char*>(m_in), len);
        advance(len);
        return true;
    }
    bool u16(size_t& value) {
        if (m_left < 2) return false;
        value = static_cast<size_t>(m_in[0]) | (static_cast<size_t>(m_in[1]) << 8);
        advance(2);
        return true;
    }
    bool u32(size_t& value) {
        if (m_left < 4) return false;
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(m_in[i]) << (8 * i);
        value = v;
        advance(4);
        return true;
    }
    bool atEnd() const { return m_left == 0; }

private:
    void advance(size_t len) {
        m_in += len;
        m_left -= len;
    }
    const unsigned char* m_in;
    size_t m_left;
};

}  // namespace

extern "C" orv_xmsg_t orv_xmsg_new(const char* name) {
    if (!name || strlen(name) > kMaxU16) return nullptr;
    auto msg = std::make_unique<XMsg>();
    msg->name = name;
    return msg.release();
}

extern "C" int orv_xmsg_add(orv_xmsg_t handle, const char* key, size_t key_len, const void* value, size_t value_len) {
    XMsg* msg = from(handle);
    if (!msg || !key || (!value && value_len > 0)) return -1;
    if (key_len > kMaxU16 || value_len > kMaxU32 || msg->fields.size() >= kMaxU16) return -1;
    msg->fields.emplace_back(std::string(key, key_len),
                             value_len ? std::string(static_cast<const char*>(value), value_len) : std::string());
    return 0;
}

extern "C" int orv_xmsg_pack_size(orv_xmsg_t handle) {
    XMsg* msg = from(handle);
    if (!msg) return -1;
    size_t size = packedSize(*msg);
    return size ? static_cast<int>(size) : -1;
}

extern "C" int orv_xmsg_pack(orv_xmsg_t handle, void* buf, size_t size) {
    XMsg* msg = from(handle);
    if (!msg || !buf) return -1;
    size_t needed = packedSize(*msg);
    if (needed == 0 || needed > size) return -1;
    Writer out(static_cast<unsigned char*>(buf));
    out.bytes(kMagic, sizeof kMagic);
    out.u16(msg->name.size());
    out.bytes(msg->name.data(), msg->name.size());
    out.u16(msg->fields.size());
    for (const auto& field : msg->fields) {
        out.u16(field.first.size());
        out.bytes(field.first.data(), field.first.size());
        out.u32(field.second.size());
        out.bytes(field.second.data(), field.second.size());
    }
    return static_cast<int>(needed);
}

extern "C" orv_xmsg_t orv_xmsg_unpack(const void* buf, size_t size) {
    if (!buf) return nullptr;
    Reader in(static_cast<const unsigned char*>(buf), size);
    std::string magic;
    if (!in.bytes(magic, sizeof kMagic) || memcmp(magic.data(), kMagic, sizeof kMagic) != 0) return nullptr;
    auto msg = std::make_unique<XMsg>();
    size_t nameLen = 0;
    size_t count = 0;
    if (!in.u16(nameLen) || !in.bytes(msg->name, nameLen) || !in.u16(count)) return nullptr;
    // The name is handed out as C text: an embedded terminator would hide its end.
    if (msg->name.find('\0') != std::string::npos) return nullptr;
    for (size_t i = 0; i < count; ++i) {
        std::string key;
        std::string value;
        size_t keyLen = 0;
        size_t valueLen = 0;
        if (!in.u16(keyLen) || !in.bytes(key, keyLen) || !in.u32(valueLen) || !in.bytes(value, valueLen)) {
            return nullptr;
        }
        msg->fields.emplace_back(std::move(key), std::move(value));
    }
    if (!in.atEnd()) return nullptr;
    return msg.release();
}

extern "C" const char* orv_xmsg_name(orv_xmsg_t handle) {
    XMsg* msg = from(handle);
    return msg ? msg->name.c_str() : nullptr;
}

extern "C" const void* orv_xmsg_get(orv_xmsg_t handle, const char* key, size_t* value_len) {
    XMsg* msg = from(handle);
    if (!msg || !key) return nullptr;
    size_t keyLen = strlen(key);
    for (const auto& field : msg->fields) {
        if (field.first.size() == keyLen && memcmp(field.first.data(), key, keyLen) == 0) {
            if (value_len) *value_len = field.second.size();
            return field.second.data();
        }
    }
    return nullptr;
}

extern "C" void orv_xmsg_release(orv_xmsg_t msg) { std::unique_ptr<XMsg> owned(from(msg)); }
