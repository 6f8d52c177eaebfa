#include "directory-fields.h"

#include "usergroup-enumerator.h"

namespace internal {

void ReadDirectoryFields(Json::Value const &keywordFields, DirectoryFields &fields) {
    if (keywordFields.empty()) return;
    ReadBool(keywordFields, "name", fields.name);
    ReadBool(keywordFields, "description", fields.description);
    ReadBool(keywordFields, "email", fields.email);
    ReadBool(keywordFields, "fullname", fields.fullname);
}

} // namespace internal
