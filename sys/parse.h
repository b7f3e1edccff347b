// sys/parse.h - pure parsers of what the system's tools print: text in,
// values out, nothing run or read. The code that fetches the text is
// elsewhere (sys/command.h).
#pragma once

#include <string_view>

namespace qorcfg::sys {

// The process ID of the last line of a process listing (ps) that holds
// `name` anywhere: the line's first field, as atoi reads it (0 when the
// line starts with no number). 0 when no line holds it, or no name.
// Lines are read as fgets reads them into a 256-byte buffer, so a longer
// line counts as several.
int pid_in_listing(std::string_view listing, const char *name);

// The process ID a background job printed ("echo $!"): atoi of its text;
// 0 or less when it printed none.
int job_pid(const char *first_line);

}  // namespace qorcfg::sys
