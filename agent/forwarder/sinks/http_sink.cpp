#include "http_sink.h"

#include <curl/curl.h>

namespace wlforward {

struct HttpSink::Curl {
    CURL* handle = nullptr;
    ~Curl() {
        if (handle) curl_easy_cleanup(handle);
    }
};

namespace {

// The answer's body is not wanted; at most this much is read of it.
size_t discard(char*, size_t size, size_t count, void* seen) {
    size_t& total = *static_cast<size_t*>(seen);
    total += size * count;
    return total > (1u << 20) ? 0 : size * count;
}

struct CurlHeaders {
    curl_slist* list = nullptr;
    ~CurlHeaders() { curl_slist_free_all(list); }
};

std::string statusText(long status) { return "the server answered HTTP " + std::to_string(status); }

}  // namespace

HttpVerdict httpVerdict(long status) {
    if (status >= 200 && status < 300) return HttpVerdict::Taken;
    if (status == 400 || status == 413 || status == 415 || status == 422) return HttpVerdict::Refused;
    return HttpVerdict::Retry;
}

HttpSink::HttpSink(HttpSinkSettings settings) : m_settings(std::move(settings)), m_curl(new Curl) {}

HttpSink::~HttpSink() = default;

long HttpSink::post(const std::string& url, const std::string& body, const std::vector<std::string>& headers,
                    std::string& error) {
    if (!m_curl->handle) m_curl->handle = curl_easy_init();
    CURL* c = m_curl->handle;
    if (!c) {
        error = "cannot start libcurl";
        return 0;
    }
    curl_easy_reset(c);
    CurlHeaders list;
    for (const std::string& h : headers) list.list = curl_slist_append(list.list, h.c_str());
    list.list = curl_slist_append(list.list, "Expect:");
    char curlError[CURL_ERROR_SIZE] = {0};
    size_t seen = 0;
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_POST, 1L);
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, list.list);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, m_settings.timeoutMs);
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, m_settings.timeoutMs);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, curlError);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &seen);
    curl_easy_setopt(c, CURLOPT_USERAGENT, "wl-forward");
    if (!m_settings.caFile.empty()) curl_easy_setopt(c, CURLOPT_CAINFO, m_settings.caFile.c_str());
    if (m_settings.insecure) {
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    CURLcode rc = curl_easy_perform(c);
    long status = 0;
    if (rc == CURLE_OK) curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    if (rc != CURLE_OK && rc != CURLE_WRITE_ERROR) {
        error = "POST " + url + ": " + (curlError[0] ? curlError : curl_easy_strerror(rc));
        return 0;
    }
    if (status == 0) curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

SendResult HttpSink::send(const std::vector<Report>& batch) {
    SendResult result;
    const std::vector<std::string> headers = {"Content-Type: application/x-ndjson"};
    std::string body;
    for (const Report& r : batch) {
        body += *r.text;
        body += '\n';
    }
    long status = post(m_settings.url, body, headers, result.error);
    if (status == 0) return result;
    HttpVerdict verdict = httpVerdict(status);
    if (verdict == HttpVerdict::Taken) {
        result.delivered = batch.size();
        return result;
    }
    if (verdict == HttpVerdict::Retry) {
        result.error = statusText(status);
        return result;
    }
    if (batch.size() == 1) {
        result.rejected = 1;
        result.note = statusText(status);
        return result;
    }
    // Which line is refused: each is sent alone until one is.
    for (const Report& r : batch) {
        long one = post(m_settings.url, *r.text + "\n", headers, result.error);
        if (one == 0) return result;
        HttpVerdict v = httpVerdict(one);
        if (v == HttpVerdict::Retry) {
            result.error = statusText(one);
            return result;
        }
        if (v == HttpVerdict::Refused) {
            result.rejected = 1;
            result.note = statusText(one);
            return result;
        }
        ++result.delivered;
    }
    return result;
}

SendResult HttpSink::sendFile(const Upload& file) {
    SendResult result;
    std::string content;
    if (!readUpload(file, content, result.error)) return result;
    std::vector<std::string> headers = {
        "Content-Type: application/octet-stream", "X-WL-Upload-Kind: " + std::to_string(file.entry.kind),
        "X-WL-Upload-Name: " + file.entry.name, "X-WL-Host-UUID: " + subjectToken(file.entry.hostUuid)};
    long status = post(m_settings.filesUrl, content, headers, result.error);
    if (status == 0) return result;
    HttpVerdict verdict = httpVerdict(status);
    if (verdict == HttpVerdict::Taken) {
        result.delivered = 1;
    } else if (verdict == HttpVerdict::Refused) {
        result.rejected = 1;
        result.note = statusText(status);
    } else {
        result.error = statusText(status);
    }
    return result;
}

}  // namespace wlforward
