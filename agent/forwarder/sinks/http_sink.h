// Reports POSTed in batches (application/x-ndjson: one envelope a line) and
// origin-log files one a request, to an HTTP(S) server, with libcurl.
#ifndef WL_FORWARD_HTTP_SINK_H
#define WL_FORWARD_HTTP_SINK_H

#include <memory>

#include "forward_settings.h"
#include "sink.h"

namespace wlforward {

// What an HTTP status means for the batch that got it.
enum class HttpVerdict { Taken, Refused, Retry };
// 2xx taken; 400, 413, 415 and 422 say the content is refused (a batch is
// then sent again line by line, so one bad report costs only itself); every
// other status, a server error or a wrong address, is tried again later.
HttpVerdict httpVerdict(long status);

class HttpSink : public Sink {
public:
    explicit HttpSink(HttpSinkSettings settings);
    ~HttpSink() override;
    const char* name() const override { return "http"; }
    SendResult send(const std::vector<Report>& batch) override;
    bool takesFiles() const override { return true; }
    SendResult sendFile(const Upload& file) override;

private:
    struct Curl;
    // The HTTP status, or 0 with error set when no answer came.
    long post(const std::string& url, const std::string& body, const std::vector<std::string>& headers,
              std::string& error);

    HttpSinkSettings m_settings;
    std::unique_ptr<Curl> m_curl;
};

}  // namespace wlforward

#endif
