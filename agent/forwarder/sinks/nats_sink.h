// Reports and origin-log files to NATS JetStream: subject
// "<prefix>.<host_uuid>.<type>" for a report and
// "<prefix>.<host_uuid>.upload.kind<N>" for a file, each published with a
// JetStream acknowledgement and a message id, so the stream's duplicate
// window drops what a retry sends twice. The stream is created if missing.
#ifndef WL_FORWARD_NATS_SINK_H
#define WL_FORWARD_NATS_SINK_H

#include <memory>
#include <string>

#include "forward_settings.h"
#include "sink.h"

namespace wlforward {

std::string reportSubject(const std::string& prefix, const Route& route);
std::string uploadSubject(const std::string& prefix, const UploadEntry& entry);
// Pieces of at most `max` bytes (a message larger than the server takes is
// split; each piece says "i/n" in the WL-Chunk header).
size_t chunkCount(size_t size, size_t max);

class NatsSink : public Sink {
public:
    explicit NatsSink(NatsSinkSettings settings);
    ~NatsSink() override;
    const char* name() const override { return "nats"; }
    SendResult send(const std::vector<Report>& batch) override;
    bool takesFiles() const override { return true; }
    SendResult sendFile(const Upload& file) override;

private:
    struct Connection;
    bool connect(std::string& error);
    void disconnect();
    // Publishes data (split as needed) and waits for the stream's ack.
    bool publish(const std::string& subject, const std::string& id, const std::string& data,
                 const std::vector<std::pair<std::string, std::string>>& headers, std::string& error);

    NatsSinkSettings m_settings;
    std::unique_ptr<Connection> m_conn;
};

}  // namespace wlforward

#endif
