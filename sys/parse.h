// sys/parse.h - pure parsers of what the system's tools print: text in,
// values out, nothing run or read. The code that fetches the text is
// elsewhere (sys/command.h).
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace qorcfg::sys {

// The lines of a text as fgets reads them into a buffer of `size` bytes:
// each up to and with its newline, a longer one cut into pieces of at most
// size - 1 bytes.
class Lines {
public:
    Lines(std::string_view text, size_t size) : rest_(text), most_(size - 1) {}
    bool next(std::string_view &line) {
        if (rest_.empty())
            return false;
        size_t n = rest_.find('\n');
        n = n == std::string_view::npos ? rest_.size() : n + 1;
        line = rest_.substr(0, n < most_ ? n : most_);
        rest_.remove_prefix(line.size());
        return true;
    }
    // The next line as fgets leaves it: in `buf` (of the size given at
    // construction) with a terminating zero.
    bool next(char *buf) {
        std::string_view line;
        if (!next(line))
            return false;
        std::memcpy(buf, line.data(), line.size());
        buf[line.size()] = '\0';
        return true;
    }

private:
    std::string_view rest_;
    size_t most_;
};

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
