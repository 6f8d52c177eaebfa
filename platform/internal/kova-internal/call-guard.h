// Keeps C++ exceptions inside a platform library: an exported call runs its
// body through Guarded, and an escaping exception becomes the given failure
// result with the last error set (KOVA_ERR_NOMEM for allocation failures,
// KOVA_ERR_IO for anything else).
#ifndef KOVA_INTERNAL_CALL_GUARD_H
#define KOVA_INTERNAL_CALL_GUARD_H

#include "kova-internal/fault-point.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <new>

namespace kova_internal {

template <typename T, typename Fn>
T Guarded(T onFailure, Fn &&body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_IO);
    }
    return onFailure;
}

} // namespace kova_internal

#endif
