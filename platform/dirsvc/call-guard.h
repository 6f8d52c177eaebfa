// Keeps C++ exceptions inside the library (see the accounts library's twin).
#ifndef KOVA_DIRSVC_CALL_GUARD_H
#define KOVA_DIRSVC_CALL_GUARD_H

#include "kova-internal/fault-point.h"
#include "kova/klibc.h"
#include "kova/errcode.h"

#include <new>

namespace kova_dirsvc {
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
} // namespace kova_dirsvc

#endif
