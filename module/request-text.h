// What a request may carry as text. Every string the module takes from a
// request ends up in a path, a log line, an account query or a reply, and
// all of those read it as NUL-terminated UTF-8: a string with an embedded
// NUL would be checked as one text and acted on as a shorter one, and
// invalid UTF-8 reaches logs and queries as bytes nobody can read back.
#ifndef KOVA_MODULE_REQUEST_TEXT_H
#define KOVA_MODULE_REQUEST_TEXT_H

#include <json/json.h>

#include <cstddef>

// Length of the well-formed UTF-8 sequence at `p` (of at most `left` > 0
// bytes), 0 when it is not one or is a NUL.
size_t Utf8SequenceLength(const unsigned char *p, size_t left);

// True when the bytes hold no NUL and are well-formed UTF-8 (no overlong
// forms, no surrogates, nothing above U+10FFFF).
bool IsCleanText(const char *text, size_t size);

// True when every string in the value, at any depth, object member names
// included, is clean text.
bool IsCleanJson(const Json::Value &value);

#endif
