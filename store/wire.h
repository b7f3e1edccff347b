// store/wire.h - the bytes of the daemon protocol, in one place for the
// client (store/daemon_client.cpp), the daemon (daemon/) and the tests.
//
// A client connects to the daemon's local stream socket, sends the first
// QORCFG_REQUEST_SENT bytes of a request record and reads the reply: chunks
// of at most kChunkSize bytes, each made of whole type-length-value records
// and ended by an end record. Numbers are big-endian, whatever the CPU.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qorcfg.h"

namespace qorcfg::wire {

// ---- the request ------------------------------------------------------------------

// Where a field of the request lies in the bytes sent.
struct Field {
    size_t offset;
    size_t size;
};
inline constexpr Field kFileField{0, 513};       // configuration file, zero-padded
inline constexpr Field kMarkerField{513, 9};     // kMarker, then zeros
inline constexpr Field kReservedField{522, 30};  // zeros
inline constexpr Field kCodeField{552, 4};       // request code (QORCFG_REQ_*)
inline constexpr Field kItemField{556, 65};      // item name; empty for a list
inline constexpr Field kNameField{621, 129};     // group name or prefix
inline constexpr Field kPathField{750, 257};     // group path or sub-path
inline constexpr Field kGidField{1007, 4};       // group ID; -1 in name requests
inline constexpr char kMarker = '_';

static_assert(offsetof(qorcfg_daemon_request, marker) == kMarkerField.offset);
static_assert(offsetof(qorcfg_daemon_request, reserved) == kReservedField.offset);
static_assert(offsetof(qorcfg_daemon_request, code) == kCodeField.offset);
static_assert(offsetof(qorcfg_daemon_request, item) == kItemField.offset);
static_assert(offsetof(qorcfg_daemon_request, name) == kNameField.offset);
static_assert(offsetof(qorcfg_daemon_request, path) == kPathField.offset);
static_assert(offsetof(qorcfg_daemon_request, gid) == kGidField.offset);
static_assert(kGidField.offset + kGidField.size == QORCFG_REQUEST_SENT);

// ---- the reply --------------------------------------------------------------------

// Every chunk is received in one read of at most this many bytes.
inline constexpr size_t kChunkSize = 4096;

// A record: type (1 byte), length (16 bits), value. Name and value texts
// are followed by a zero byte that the length does not count.
enum RecordType : unsigned char {
    kEndRecord = 0,  // ends the chunk
    kHeaderRecord = 1,
    kEndRecordToo = 2,  // ends the chunk as well
    kNameRecord = 3,
    kValueRecord = 4,
    kIndexRecord = 5,  // 32-bit index of the value before it
};
inline constexpr size_t kRecordHead = 3;
// A header's value: 4 bytes not read, flags, result code.
inline constexpr size_t kHeaderValue = 12;
inline constexpr size_t kHeaderFlagsAt = 4;
inline constexpr size_t kHeaderResultAt = 8;
// Header flag: further chunks follow; the reply then ends when the daemon
// closes the connection.
inline constexpr uint32_t kMoreChunks = 2;

// ---- big-endian numbers -----------------------------------------------------------

inline uint32_t get_be16(const unsigned char *p) {
    return (uint32_t{p[0]} << 8) | p[1];
}

inline uint32_t get_be32(const unsigned char *p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

inline void put_be16(unsigned char *p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

inline void put_be32(unsigned char *p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

}  // namespace qorcfg::wire
