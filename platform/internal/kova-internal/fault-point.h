// The one check every exported platform call makes before doing anything:
// when a test armed a fault for the call's name, the call returns the chosen
// result at once (the last error was set by the check).
#ifndef KOVA_INTERNAL_FAULT_POINT_H
#define KOVA_INTERNAL_FAULT_POINT_H

#include "kova/fault.h"

#define KOVA_FAULT_POINT(name, type)                                      \
    do {                                                                  \
        long kova_fault_result_;                                          \
        if (KLIBCFaultHit((name), &kova_fault_result_))                   \
            return static_cast<type>(kova_fault_result_);                 \
    } while (0)

#define KOVA_FAULT_POINT_BOOL(name)                                       \
    do {                                                                  \
        long kova_fault_result_;                                          \
        if (KLIBCFaultHit((name), &kova_fault_result_))                   \
            return kova_fault_result_ != 0;                               \
    } while (0)

#define KOVA_FAULT_POINT_NULL(name)                                       \
    do {                                                                  \
        long kova_fault_result_;                                          \
        if (KLIBCFaultHit((name), &kova_fault_result_))                   \
            return nullptr;                                               \
    } while (0)

#define KOVA_FAULT_POINT_VOID(name)                                       \
    do {                                                                  \
        long kova_fault_result_;                                          \
        if (KLIBCFaultHit((name), &kova_fault_result_))                   \
            return;                                                       \
    } while (0)

// Sets the last error with this source file's base name and line.
#define KOVA_FAIL(code) KLIBCErrSetEx((code), kova_internal::BaseName(__FILE__), __LINE__)

namespace kova_internal {
constexpr const char *BaseName(const char *path) {
    const char *base = path;
    for (const char *p = path; *p; ++p)
        if (*p == '/') base = p + 1;
    return base;
}
} // namespace kova_internal

#endif
