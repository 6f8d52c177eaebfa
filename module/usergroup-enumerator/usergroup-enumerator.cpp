#include "usergroup-enumerator.h"

namespace internal {

UserGroupEnumerator::~UserGroupEnumerator() {}

void ReadBool(Json::Value const &object, const char *key, bool &target) {
    // A non-object (the schema leaves "config" free) has no members to read.
    if (!object.isObject() || !object.isMember(key)) return;
    Json::Value const &value = object[key];
    if (value.isBool()) target = value.asBool();
}

} // namespace internal
