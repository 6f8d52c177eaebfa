// Sole owner of one account-database handle: closed exactly once, on every
// path out of the query.
#ifndef KOVA_MODULE_ACCOUNTDB_HANDLE_H
#define KOVA_MODULE_ACCOUNTDB_HANDLE_H

#include "kova/accountdb.h"

namespace internal {

class AccountDbHandle {
public:
    explicit AccountDbHandle(PKOVA_ACCOUNTDB handle) : handle_(handle) {}
    ~AccountDbHandle() {
        if (handle_) KOVAACCOUNTDBClose(handle_);
    }
    AccountDbHandle(const AccountDbHandle &) = delete;
    AccountDbHandle &operator=(const AccountDbHandle &) = delete;

    PKOVA_ACCOUNTDB get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }

private:
    PKOVA_ACCOUNTDB handle_;
};

} // namespace internal

#endif
