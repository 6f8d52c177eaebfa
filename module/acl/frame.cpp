// PENDING: replaced by the request frame (constructor, shared checks,
// owner mapping, privileged section).
#include "acl.h"

ACLHandler::ACLHandler(KOVA::APIRequest *request, KOVA::APIResponse *response)
    : request_(request), response_(response), error_(6200) {}
ACLHandler::~ACLHandler() {}
