// The account fields a keyword is matched in by the directory sources (LDAP
// users and the Windows domains): the name unless switched off, and on
// request the description, e-mail address and full name.
#ifndef KOVA_MODULE_DIRECTORY_FIELDS_H
#define KOVA_MODULE_DIRECTORY_FIELDS_H

#include <json/json.h>

namespace internal {

struct DirectoryFields {
    bool name = true;
    bool description = false;
    bool email = false;
    bool fullname = false;
};

// Reads "name", "description", "email" and "fullname" from a request's
// "keywordFields"; a key that is absent or not a boolean keeps its value.
void ReadDirectoryFields(Json::Value const &keywordFields, DirectoryFields &fields);

} // namespace internal

#endif
