// common/codes.h - the library's result codes in words, for the messages of
// the programs built on it (qorcfg, qorcfgd).
#pragma once

namespace qorcfg::common {

// What a result code means, in a few words ("unknown group"); "failure"
// for a code the library does not use.
const char *code_words(int code);

}  // namespace qorcfg::common
