// Sole owner of one ACL a request obtained or built: the ACL is released
// whichever way the method leaves. out() hands the slot to a platform call
// that fills it; reset() replaces (and releases) the held ACL.
#ifndef KOVA_MODULE_ACL_HOLDER_H
#define KOVA_MODULE_ACL_HOLDER_H

#include "kova/acl.h"

class AclHolder {
public:
    AclHolder() : acl_(nullptr) {}
    ~AclHolder() { KOVAACLFree(acl_); }
    AclHolder(const AclHolder &) = delete;
    AclHolder &operator=(const AclHolder &) = delete;
    PKOVA_ACL *out() { return &acl_; }
    PKOVA_ACL get() const { return acl_; }
    void reset(PKOVA_ACL acl) {
        KOVAACLFree(acl_);
        acl_ = acl;
    }

private:
    PKOVA_ACL acl_;
};

#endif
