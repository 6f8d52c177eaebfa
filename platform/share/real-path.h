// The kernel-assisted path lookups moved to the platform's internal library
// (kova-internal/real-path.h); this name stays for the ACL library's
// sources until they include that header themselves.
#ifndef KOVA_SHARE_REAL_PATH_H
#define KOVA_SHARE_REAL_PATH_H

#include "kova-internal/traverse-scope.h"
#include "kova-internal/real-path.h"

namespace kova_share {
using kova_internal::NameOfFd;
using kova_internal::OpenBeneath;
using kova_internal::OpenWithoutLinks;
using kova_internal::RealPathOf;

using kova_internal::TraverseScope;

} // namespace kova_share

#endif
