// Length-prefixed JSON messages between the server and its workers: a
// 4-byte big-endian length, then that many bytes of JSON text. Reads and
// writes retry on EINTR and short transfers; a closed or failing channel
// reports false.
#ifndef KOVA_WEBD_FRAME_H
#define KOVA_WEBD_FRAME_H

#include <json/json.h>
#include <string>

namespace webd {

// Largest message accepted; a longer length prefix means a broken peer.
constexpr size_t kMaxFrameBytes = 64u << 20;

bool WriteFrame(int fd, const Json::Value &message);
// timeoutMs < 0 waits forever. *timedOut is set when the wait for the first
// byte expired (the channel is still usable then).
bool ReadFrame(int fd, Json::Value &message, int timeoutMs = -1, bool *timedOut = nullptr);

// Deepest nesting of arrays and objects accepted in a request (body or
// field); frames allow a little more, for the envelope around the params.
constexpr int kMaxRequestDepth = 64;
constexpr int kMaxFrameDepth = 256;

// Compact one-line JSON text, and its parser (false on invalid text or
// nesting deeper than kMaxFrameDepth).
std::string ToJsonText(const Json::Value &v);
bool ParseJsonText(const std::string &text, Json::Value &out);

enum class JsonParse { kOk, kInvalid, kTooDeep };
// The parser for request text: nesting deeper than kMaxRequestDepth is
// kTooDeep, never a recursion as deep as the text asks for.
JsonParse ParseRequestJson(const std::string &text, Json::Value &out);

} // namespace webd

#endif
