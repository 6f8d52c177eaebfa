#include "frame.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <unistd.h>

#include <memory>

namespace webd {

namespace {

bool WriteAll(int fd, const char *p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool ReadAll(int fd, char *p, size_t n) {
    while (n > 0) {
        ssize_t r = read(fd, p, n);
        if (r < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (r == 0) return false;  // peer closed mid-message
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

} // namespace

std::string ToJsonText(const Json::Value &v) {
    // Built once: every frame and reply goes through here. The builder is
    // only read afterwards, so the front's HTTP threads may share it.
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder b;
        b["indentation"] = "";
        b["emitUTF8"] = true;
        return b;
    }();
    return Json::writeString(builder, v);
}

namespace {

JsonParse Parse(const Json::CharReaderBuilder &builder, const std::string &text, Json::Value &out) {
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errs;
    Json::Value v;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &v, &errs)) return JsonParse::kInvalid;
    } catch (const Json::Exception &) {
        // The reader throws, rather than fails, past its stack limit.
        return JsonParse::kTooDeep;
    }
    out = std::move(v);
    return JsonParse::kOk;
}

Json::CharReaderBuilder StrictReader(int depth) {
    Json::CharReaderBuilder b;
    b["collectComments"] = false;
    b["failIfExtra"] = true;
    b["rejectDupKeys"] = false;
    b["stackLimit"] = depth;
    return b;
}

} // namespace

bool ParseJsonText(const std::string &text, Json::Value &out) {
    static const Json::CharReaderBuilder builder = StrictReader(kMaxFrameDepth);
    return Parse(builder, text, out) == JsonParse::kOk;
}

JsonParse ParseRequestJson(const std::string &text, Json::Value &out) {
    static const Json::CharReaderBuilder builder = StrictReader(kMaxRequestDepth);
    return Parse(builder, text, out);
}

bool WriteFrame(int fd, const Json::Value &message) {
    std::string body = ToJsonText(message);
    if (body.size() > kMaxFrameBytes) return false;
    uint32_t n = static_cast<uint32_t>(body.size());
    unsigned char head[4] = {static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                             static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    // One buffer, one write in the common case: the peer never sees a
    // header without its body for small messages.
    std::string all(reinterpret_cast<const char *>(head), 4);
    all += body;
    return WriteAll(fd, all.data(), all.size());
}

bool ReadFrame(int fd, Json::Value &message, int timeoutMs, bool *timedOut) {
    if (timedOut) *timedOut = false;
    if (timeoutMs >= 0) {
        struct pollfd p = {fd, POLLIN, 0};
        int r;
        do {
            r = poll(&p, 1, timeoutMs);
        } while (r < 0 && errno == EINTR);
        if (r < 0) return false;
        if (r == 0) {
            if (timedOut) *timedOut = true;
            return false;
        }
    }
    unsigned char head[4];
    if (!ReadAll(fd, reinterpret_cast<char *>(head), 4)) return false;
    uint32_t n = (uint32_t(head[0]) << 24) | (uint32_t(head[1]) << 16) | (uint32_t(head[2]) << 8) | head[3];
    if (n > kMaxFrameBytes) return false;
    std::string body(n, '\0');
    if (n > 0 && !ReadAll(fd, &body[0], n)) return false;
    return ParseJsonText(body, message);
}

} // namespace webd
