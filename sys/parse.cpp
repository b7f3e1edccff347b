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
    while (!listing.empty()) {
        // One fgets: up to and with the newline, at most 255 bytes.
        size_t n = listing.find('\n');
        n = n == std::string_view::npos ? listing.size() : n + 1;
        n = n < kLineSize - 1 ? n : kLineSize - 1;
        std::memcpy(line, listing.data(), n);
        line[n] = '\0';
        listing.remove_prefix(n);
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
