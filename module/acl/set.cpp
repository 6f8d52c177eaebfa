// PENDING: this method family has not landed yet; it answers the generic failure.
#include "acl.h"

void ACLHandler::Set() { response_->SetError(error_, Json::Value()); }
void ACLHandler::SetACLChildFunc(KOVA::APIRequest *, KOVA::APIResponse *response, void *) { response->SetError(6200, Json::Value()); }
int ACLHandler::ApplyACLFileProperty(KOVA::APIResponse *, Json::Value &) { return 6200; }
