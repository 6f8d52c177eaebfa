// PENDING: this method family has not landed yet; it answers the generic failure.
#include "acl.h"

void ACLHandler::CheckAdmin() { response_->SetError(error_, Json::Value()); }
void ACLHandler::GetUIInfo() { response_->SetError(error_, Json::Value()); }
