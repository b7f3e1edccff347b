// platform/root.h - how the stand-in platform library reads the device's
// /proc and /sys files: under a root that tests and the offline tool set
// (see vq19ext_set_root), as the configuration library does.
#pragma once

#include <cstddef>
#include <string>

namespace qorcfg::platform {

// The first line of the device file `path` (absolute) without its line
// end, or false when it cannot be read.
bool read_line(const char *path, std::string &line);

// The value of the line "<key>=<value>" or "<key>: <value>" of `path`.
bool read_key(const char *path, const char *key, char separator, std::string &value);

// Copies `text` into `buf` of `size` bytes, cut to fit.
void copy_out(const std::string &text, char *buf, size_t size);

}  // namespace qorcfg::platform
