// Keeps C++ exceptions inside the library: an exported call runs its body
// through Guarded, and an escaping exception becomes a failure result with
// the last error set (KOVA_ERR_NOMEM for allocation failures).
#ifndef KOVA_ACCOUNTS_CALL_GUARD_H
#define KOVA_ACCOUNTS_CALL_GUARD_H

#include "kova-internal/fault-point.h"
#include "kova/klibc.h"
#include "kova/errcode.h"

#include <new>

namespace kova_accounts {

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

} // namespace kova_accounts

#endif
