// PENDING: this method family has not landed yet; it answers the generic failure.
#include "acl.h"

void ACLHandler::Inspect() { response_->SetError(error_, Json::Value()); }
void ACLHandler::CheckSelfDenied() { response_->SetError(error_, Json::Value()); }
