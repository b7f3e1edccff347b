// common/codes.h - the messages of the programs built on the library
// (qorcfg, qorcfgd): result codes in words, and a damaged file.
#pragma once

namespace qorcfg::common {

// What a result code means, in a few words ("unknown group"); "failure"
// for a code the library does not use.
const char *code_words(int code);

// Says on standard error, as `program`, that `file` is damaged (`error`,
// the parse's error text, says where) and that what follows is missing.
void report_damage(const char *program, const char *file, const char *error);

}  // namespace qorcfg::common
