// The share lookup of KOVAShareNamePathGet for callers that already hold a
// real path (the ACL library canonicalises every path it is given): the
// table is consulted without resolving the path a second time.
#ifndef KOVA_SHARE_LOOKUP_H
#define KOVA_SHARE_LOOKUP_H

#include <string>

namespace kova_share {

// The share whose real root is the longest prefix of `real` on a component
// boundary. 0 with name and root set; -1 with the last error set:
// KOVA_ERR_NOSHARE when no share holds it, or a share-table failure. Same
// fault point as KOVAShareNamePathGet: it is that call's lookup.
int ShareOfRealPath(const std::string &real, std::string &name, std::string &root);

} // namespace kova_share

#endif
