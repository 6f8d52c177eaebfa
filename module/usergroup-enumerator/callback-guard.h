// Host enumerations call back through C frames, which an exception must
// never cross. A callback runs its body through RunCallback: running out of
// memory is remembered, the enumeration is stopped, and the enumerator
// rethrows once the host call has returned (the entry function turns it
// into the out-of-memory answer).
#ifndef KOVA_MODULE_CALLBACK_GUARD_H
#define KOVA_MODULE_CALLBACK_GUARD_H

#include <new>

namespace internal {

struct CallbackGuard {
    bool outOfMemory = false;

    template <typename Body>
    int Run(Body body) {
        try {
            return body();
        } catch (...) {
            // Only allocation can throw in the bodies; stop and report it.
            outOfMemory = true;
            return -1;
        }
    }

    void RethrowIfFailed() const {
        if (outOfMemory) throw std::bad_alloc();
    }
};

} // namespace internal

#endif
