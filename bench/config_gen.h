// bench/config_gen.h - deterministic generator of realistic device
// configurations, shared by the benchmarks and the fuzz corpus.
//
// A generated document is the configuration of one access point: root
// element "qorconfig" (version, devtype), groups system, network, mgmt and
// wlan, three radios rf1..rf3 with 16 VAPs and 8 WDS links each. Items are
// attributes with short names and values of 1 to 64 characters; some SSIDs
// and descriptions need escaping (&amp; &lt; &quot;). The layout is
// newline-and-space indentation, i.e. text between elements. The size is
// reached by lengthening the lists (MAC ACLs, firewall rules, VLANs, DHCP
// leases, accounts, SNMP communities). Everything is derived from the seed:
// the same arguments give the same bytes on every platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qorcfg::bench {

// Number of radios (rf1..rf3), VAPs per radio and WDS links per radio.
inline constexpr int kRadios = 3;
inline constexpr int kVapsPerRadio = 16;
inline constexpr int kWdsPerRadio = 8;

// A document of about `target_bytes` (within 10% from about 48 KB up; a
// smaller target gives the smallest document, whose lists are short but
// not empty). The same (target_bytes, seed) always gives the same document.
std::string generate_config(std::size_t target_bytes, std::uint32_t seed);

// Dotted path of radio `radio` (1..kRadios) as the generator writes it,
// e.g. "qorconfig.wlan.rf2": the prefix for parsing one radio's element.
std::string radio_path(int radio);

// One step of a lookup: the `index`-th child element named `name`
// (0 = the first of that name).
struct LookupStep {
    std::string name;
    int index = 0;
};

// An existing item: steps from the root element down (the root itself,
// "qorconfig", is not a step), then an attribute of the element reached.
// `value` is the attribute's value with entity references decoded.
struct Lookup {
    std::vector<LookupStep> steps;
    std::string attr;
    std::string value;

    // Dotted form: "qorconfig.wlan.rf2.vap:7.macacl.entry:3@mac".
    std::string path() const;
};

// `n` random items of `doc` (a document as generate_config writes it:
// attributes in double quotes, no comments or CDATA needed), chosen by a
// random walk down from the root: each group of children is equally likely,
// then each index within it. Deterministic for a given seed.
std::vector<Lookup> random_lookups(const std::string &doc, std::size_t n, std::uint32_t seed);

}  // namespace qorcfg::bench
