// PENDING: this method family has not landed yet; it answers the generic failure.
#include "acl.h"

void ACLHandler::ListOwners() { response_->SetError(error_, Json::Value()); }
