// A module whose table is malformed (a row without a handler before the end
// row): the server must refuse it whole, including its valid first row.
#include "kova/module.h"

namespace {

void Ok(KOVA::APIRequest *, KOVA::APIResponse *) {}

const KOVA_API_ENTRY gTable[] = {
    {"Test.Bad", 1, "fine", Ok},
    {"Test.Bad", 1, "broken", nullptr},
    {nullptr, 0, nullptr, nullptr},
};

} // namespace

extern "C" __attribute__((visibility("default"))) const KOVA_API_ENTRY *GetAPITable(void) { return gTable; }
