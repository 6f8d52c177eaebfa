/*
 * String bundles (libplm.so.7): localised texts the platform keeps in
 * string files under the platform root, one file per module number and
 * language: <root>/usr/share/strings/<lang>/module-<N>.ini, sections in
 * [brackets], lines key = "text". The language is $KOVA_LANG, else "enu".
 * A missing file, section or key yields the default.
 */
#ifndef KOVA_STRINGBUNDLE_H
#define KOVA_STRINGBUNDLE_H

#include <string>

#include "kova/export.h"

KOVA_API_BEGIN

class StringBundle {
public:
    StringBundle(int module, const std::string &section);
    ~StringBundle();
    StringBundle(const StringBundle &) = delete;
    StringBundle &operator=(const StringBundle &) = delete;

    std::string Text(const std::string &key, const std::string &defaultText) const;

private:
    struct Impl;
    Impl *d_;
};

KOVA_API_END

#endif
