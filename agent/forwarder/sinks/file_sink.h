// The default sink: a copy of every report in a local file (rotated by size,
// one old file kept) and of every origin-log file in a directory.
#ifndef WL_FORWARD_FILE_SINK_H
#define WL_FORWARD_FILE_SINK_H

#include "forward_settings.h"
#include "sink.h"

namespace wlforward {

class FileSink : public Sink {
public:
    explicit FileSink(FileSinkSettings settings);
    ~FileSink() override;
    const char* name() const override { return "file"; }
    SendResult send(const std::vector<Report>& batch) override;
    bool takesFiles() const override { return true; }
    SendResult sendFile(const Upload& file) override;

private:
    bool openFile(std::string& error);

    FileSinkSettings m_settings;
    int m_fd = -1;
    uint64_t m_size = 0;
};

}  // namespace wlforward

#endif
