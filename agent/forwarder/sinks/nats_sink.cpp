#include "nats_sink.h"

#include <nats/nats.h>

namespace wlforward {

struct NatsSink::Connection {
    natsConnection* nc = nullptr;
    jsCtx* js = nullptr;
    ~Connection() {
        if (js) jsCtx_Destroy(js);
        if (nc) {
            natsConnection_Close(nc);
            natsConnection_Destroy(nc);
        }
    }
};

namespace {

// Room left in a message for the headers.
constexpr size_t kHeaderRoom = 1024;

std::string natsError(const char* what, natsStatus s, jsErrCode jerr = static_cast<jsErrCode>(0)) {
    std::string text = std::string(what) + ": " + natsStatus_GetText(s);
    const char* last = nats_GetLastError(nullptr);
    if (last && *last) text += " (" + std::string(last) + ")";
    if (jerr != 0) text += " [JetStream error " + std::to_string(static_cast<int>(jerr)) + "]";
    return text;
}

}  // namespace

std::string reportSubject(const std::string& prefix, const Route& route) {
    return prefix + "." + subjectToken(route.hostUuid) + "." + subjectToken(route.type);
}

std::string uploadSubject(const std::string& prefix, const UploadEntry& entry) {
    return prefix + "." + subjectToken(entry.hostUuid.empty() ? "unknown" : entry.hostUuid) + ".upload.kind" +
           std::to_string(entry.kind);
}

size_t chunkCount(size_t size, size_t max) { return size == 0 ? 1 : (size + max - 1) / max; }

NatsSink::NatsSink(NatsSinkSettings settings) : m_settings(std::move(settings)) {}

NatsSink::~NatsSink() { disconnect(); }

void NatsSink::disconnect() { m_conn.reset(); }

bool NatsSink::connect(std::string& error) {
    if (m_conn && m_conn->nc && !natsConnection_IsClosed(m_conn->nc) && !natsConnection_IsReconnecting(m_conn->nc)) {
        return true;
    }
    disconnect();
    auto conn = std::make_unique<Connection>();
    natsOptions* opts = nullptr;
    natsStatus s = natsOptions_Create(&opts);
    if (s == NATS_OK) s = natsOptions_SetURL(opts, m_settings.url.c_str());
    if (s == NATS_OK) s = natsOptions_SetTimeout(opts, m_settings.timeoutMs);
    // Reconnection is this sink's own, with its back-off and its cursor.
    if (s == NATS_OK) s = natsOptions_SetAllowReconnect(opts, false);
    if (s == NATS_OK) s = natsOptions_SetName(opts, "wl-forward");
    if (s == NATS_OK) s = natsConnection_Connect(&conn->nc, opts);
    natsOptions_Destroy(opts);
    if (s != NATS_OK) {
        error = natsError(("cannot connect to " + m_settings.url).c_str(), s);
        return false;
    }
    jsOptions jso;
    jsOptions_Init(&jso);
    jso.Wait = m_settings.timeoutMs;
    s = natsConnection_JetStream(&conn->js, conn->nc, &jso);
    if (s != NATS_OK) {
        error = natsError("no JetStream context", s);
        return false;
    }
    // The stream: found, or made to hold every subject under the prefix.
    jsStreamInfo* info = nullptr;
    jsErrCode jerr = static_cast<jsErrCode>(0);
    s = js_GetStreamInfo(&info, conn->js, m_settings.stream.c_str(), nullptr, &jerr);
    if (s == NATS_NOT_FOUND || jerr == JSStreamNotFoundErr) {
        std::string subjects = m_settings.subjectPrefix + ".>";
        const char* list[] = {subjects.c_str()};
        jsStreamConfig cfg;
        jsStreamConfig_Init(&cfg);
        cfg.Name = m_settings.stream.c_str();
        cfg.Subjects = list;
        cfg.SubjectsLen = 1;
        cfg.Storage = js_FileStorage;
        jerr = static_cast<jsErrCode>(0);
        s = js_AddStream(&info, conn->js, &cfg, nullptr, &jerr);
        if (s != NATS_OK) {
            error = natsError(("cannot create the JetStream stream " + m_settings.stream).c_str(), s, jerr);
            return false;
        }
    } else if (s != NATS_OK) {
        error = natsError(("cannot look up the JetStream stream " + m_settings.stream).c_str(), s, jerr);
        return false;
    }
    jsStreamInfo_Destroy(info);
    m_conn = std::move(conn);
    return true;
}

bool NatsSink::publish(const std::string& subject, const std::string& id, const std::string& data,
                       const std::vector<std::pair<std::string, std::string>>& headers, std::string& error) {
    int64_t maxPayload = natsConnection_GetMaxPayload(m_conn->nc);
    size_t room = maxPayload > static_cast<int64_t>(2 * kHeaderRoom) ? static_cast<size_t>(maxPayload) - kHeaderRoom
                                                                     : kHeaderRoom;
    size_t pieces = chunkCount(data.size(), room);
    for (size_t i = 0; i < pieces; ++i) {
        size_t from = i * room;
        size_t length = std::min(room, data.size() - std::min(from, data.size()));
        natsMsg* msg = nullptr;
        natsStatus s = natsMsg_Create(&msg, subject.c_str(), nullptr, data.data() + from, static_cast<int>(length));
        for (const auto& h : headers) {
            if (s == NATS_OK) s = natsMsgHeader_Set(msg, h.first.c_str(), h.second.c_str());
        }
        std::string pieceId = pieces > 1 ? id + "." + std::to_string(i) : id;
        if (s == NATS_OK && pieces > 1) {
            s = natsMsgHeader_Set(msg, "WL-Chunk", (std::to_string(i + 1) + "/" + std::to_string(pieces)).c_str());
        }
        jsPubOptions po;
        jsPubOptions_Init(&po);
        po.MsgId = pieceId.c_str();
        po.ExpectStream = m_settings.stream.c_str();
        po.MaxWait = m_settings.timeoutMs;
        jsPubAck* ack = nullptr;
        jsErrCode jerr = static_cast<jsErrCode>(0);
        if (s == NATS_OK) s = js_PublishMsg(&ack, m_conn->js, msg, &po, &jerr);
        jsPubAck_Destroy(ack);
        natsMsg_Destroy(msg);
        if (s != NATS_OK) {
            error = natsError(("publish to " + subject).c_str(), s, jerr);
            disconnect();
            return false;
        }
    }
    return true;
}

SendResult NatsSink::send(const std::vector<Report>& batch) {
    SendResult result;
    if (!connect(result.error)) return result;
    for (const Report& r : batch) {
        std::string id = subjectToken(r.route.hostUuid) + ":" + std::to_string(r.offset);
        if (!publish(reportSubject(m_settings.subjectPrefix, r.route), id, *r.text, {{"WL-Type", r.route.type}},
                     result.error)) {
            return result;
        }
        ++result.delivered;
    }
    return result;
}

SendResult NatsSink::sendFile(const Upload& file) {
    SendResult result;
    std::string content;
    if (!readUpload(file, content, result.error)) return result;
    if (!connect(result.error)) return result;
    std::string id = "upload:" + subjectToken(file.entry.hostUuid) + ":" + std::to_string(file.offset);
    if (publish(uploadSubject(m_settings.subjectPrefix, file.entry), id, content,
                {{"WL-Upload-Name", file.entry.name}, {"WL-Upload-Kind", std::to_string(file.entry.kind)}},
                result.error)) {
        result.delivered = 1;
    }
    return result;
}

}  // namespace wlforward
