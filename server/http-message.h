// One HTTP request as the server's request handling sees it, and its reply:
// plain values with no socket behind them, so the handling (Front::Handle)
// can be called in-process by tests and fuzzers, and the listener
// (http-listener.h) only moves bytes. Header names compare without case.
#ifndef KOVA_WEBD_HTTP_MESSAGE_H
#define KOVA_WEBD_HTTP_MESSAGE_H

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace webd {

typedef std::vector<std::pair<std::string, std::string>> HeaderList;

struct HttpRequest {
    std::string method;   // "GET", "POST", ...
    std::string target;   // as sent: "/webapi?api=...", percent-escapes not yet decoded
    HeaderList headers;
    std::string body;
    std::string remote;   // the peer's address, "127.0.0.1"

    // The first value of the header, "" when absent.
    std::string Header(const std::string &name) const;
};

struct HttpReply {
    int status = 200;
    HeaderList headers;   // sent in this order; a name may repeat
    std::string body;

    // Replaces every header of that name.
    void Set(const std::string &name, const std::string &value);
    std::string Header(const std::string &name) const;
};

// Why the listener answered a request itself, before or instead of the
// handling: the front turns each into a reply (Front::Refuse).
enum class Refusal {
    kMalformed,           // not readable as HTTP
    kRequestLineTooLong,  // no end of the request line within the header limit
    kHeaderTooLarge,      // request line and fields over the header limit
    kBodyTooLarge,
    kTooSlow,             // header or body not complete within its deadline
    kTooManyConnections,  // from this address
    kBusy,                // the bodies of other requests fill the memory set aside for them
    kInternal,            // the handling failed unexpectedly
};

// The path of a target (before "?"), percent-decoded; the raw query after it.
void SplitTarget(const std::string &target, std::string &path, std::string &query);
// "a=1&b=x%20y" (query strings and form bodies) into decoded fields; "+"
// stands for a space. Bytes are kept as they decode: the caller checks text.
std::multimap<std::string, std::string> ParseFormText(const std::string &text);
std::string PercentDecode(const std::string &text, bool plusIsSpace);

} // namespace webd

#endif
