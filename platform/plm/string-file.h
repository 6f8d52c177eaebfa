// Parser of string files: "[section]" headers and `key = "text"` lines.
// Blank lines and lines starting with '#' or ';' are ignored; a value in
// double quotes may hold \" \\ \n and \t; an unquoted value is taken as
// written, trimmed. Later keys of a section replace earlier ones.
#ifndef KOVA_PLM_STRING_FILE_H
#define KOVA_PLM_STRING_FILE_H

#include <istream>
#include <map>
#include <string>

namespace kova_plm {

// The keys of one section of the text in `in`; empty when the section is
// absent.
std::map<std::string, std::string> ReadSection(std::istream &in, const std::string &section);

} // namespace kova_plm

#endif
