// tools/devdoc.h - the sample device's documents as XML text.
#pragma once

#include <string>

namespace qorcfg::device {

// The default configuration (`rules` false) or the rule file (true) of the
// sample device. `list_scale` multiplies the entries of every list of the
// configuration (1: the device's defaults; larger values make big
// documents for benchmarks, beyond the lists' "max").
std::string document(bool rules, int list_scale = 1);

}  // namespace qorcfg::device
