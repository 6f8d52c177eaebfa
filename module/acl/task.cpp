// PENDING: this method family has not landed yet; it answers the generic failure.
#include "acl.h"

void ACLHandler::Status() { response_->SetError(error_, Json::Value()); }
void ACLHandler::Stop() { response_->SetError(error_, Json::Value()); }
