// What the harnesses share: a broken invariant is reported with the harness's name and aborts, so libFuzzer
// keeps the input; inputs become text and JSON the way the server would read them.
#ifndef KOVA_FUZZ_CHECK_H
#define KOVA_FUZZ_CHECK_H

#include <json/json.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace kova_fuzz {

[[noreturn]] inline void Die(const std::string &what) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    std::abort();
}

inline void Check(bool ok, const char *what) {
    if (!ok) Die(what);
}

inline std::string Text(const uint8_t *data, size_t size) { return std::string(reinterpret_cast<const char *>(data), size); }

// False for text that is not JSON, or nests past the reader's limit (the server's parser refuses that before
// any handler runs).
inline bool ParseJson(const std::string &text, Json::Value &out) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::string error;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &out, &error);
    } catch (const std::exception &) {
        return false;
    }
}

} // namespace kova_fuzz

#endif
