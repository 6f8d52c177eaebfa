// StringBundle: one section of a module's string file, read once when the
// bundle is made.
#include "kova/stringbundle.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include "string-file.h"

#include <cstdlib>
#include <fstream>
#include <map>

namespace {

// A language name is one path component; anything else falls back to the
// default language rather than reaching outside the strings directory.
std::string Language() {
    const char *env = std::getenv("KOVA_LANG");
    if (!env || !*env) return "enu";
    std::string lang(env);
    if (lang == "." || lang == ".." || lang.find('/') != std::string::npos) return "enu";
    return lang;
}

} // namespace

struct StringBundle::Impl {
    std::map<std::string, std::string> texts;
};

StringBundle::StringBundle(int module, const std::string &section) : d_(nullptr) {
    try {
        d_ = new Impl;
        std::string path = std::string(KLIBCRootGet()) + "/usr/share/strings/" + Language() + "/module-" +
                           std::to_string(module) + ".ini";
        std::ifstream in(path);
        // A missing file is not an error: every text falls back to its default.
        if (in) d_->texts = kova_plm::ReadSection(in, section);
    } catch (...) {
        // Out of memory: the bundle stays empty and answers defaults.
        KOVA_FAIL(KOVA_ERR_NOMEM);
    }
}

StringBundle::~StringBundle() { delete d_; }

std::string StringBundle::Text(const std::string &key, const std::string &defaultText) const {
    try {
        long ignored;
        if (KLIBCFaultHit("StringBundle::Text", &ignored)) return defaultText;
        if (!d_) return defaultText;
        auto it = d_->texts.find(key);
        if (it == d_->texts.end()) return defaultText;
        return it->second;
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return std::string();
    }
}
