// sys/parse.cpp - parsers of tool output.
#include "sys/parse.h"

#include <cstdlib>
#include <cstring>

#include "sys/command.h"

namespace qorcfg::sys {

int pid_in_listing(std::string_view listing, const char *name) {
    if (name == nullptr)
        return 0;
    int pid = 0;
    char line[kLineSize];
    Lines lines(listing, kLineSize);
    while (lines.next(line)) {
        // Every line that mentions the name anywhere counts, and the last
        // one wins: callers rely on that, odd as it is for a process finder.
        if (std::strstr(line, name) == nullptr)
            continue;
        // The first token, fields being separated by single blanks.
        const char *first = line + std::strspn(line, " ");
        pid = *first != '\0' ? std::atoi(first) : 0;
    }
    return pid;
}

int job_pid(const char *first_line) {
    return std::atoi(first_line);
}

}  // namespace qorcfg::sys
