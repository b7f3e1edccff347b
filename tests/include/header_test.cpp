// The exported header compiles as C++ with C linkage, and its records have
// the same layout as seen from C.
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

#include "qorcfg.h"

namespace {

constexpr size_t P = sizeof(void *);
#define QORCFG_LAYOUT(type, field, offset) \
    static_assert(offsetof(type, field) == (offset), #type "." #field " offset");
#define QORCFG_SIZE(type, size) static_assert(sizeof(type) == (size), #type " size");

#include "tests/include/layout_change_apply_validate_backup.h"
#include "tests/include/layout_sys_wlan.h"
#include "tests/include/layout_xml_store.h"

// Records that C programs read directly must stay plain C records.
static_assert(std::is_standard_layout_v<ezxml_root> && std::is_trivial_v<ezxml_root>);
static_assert(std::is_standard_layout_v<qorcfg_daemon_request>);

TEST(Header, ResultCodesKeepTheirDocumentedValues) {
    // Callers compare against the numbers, not the names.
    EXPECT_EQ(QORCFG_BUSY, 1);
    EXPECT_EQ(QORCFG_ERR_OPEN, -7);
    EXPECT_EQ(QORCFG_ERR_TARGET, -8);
    EXPECT_EQ(QORCFG_ERR_LOCK, -10);
    EXPECT_EQ(QORCFG_ERR_MISSING, -11);
    EXPECT_EQ(QORCFG_ERR_PENDING, -14);
    EXPECT_EQ(QORCFG_ERR_MAX, -15);
    EXPECT_EQ(QORCFG_ERR_REBOOT, -17);
    EXPECT_EQ(QORCFG_ERR_DAEMON_CONNECT, -10003);
    EXPECT_EQ(QORCFG_LOCK_ACCESS, 6);
    EXPECT_EQ(QORCFG_REQUEST_SENT, 1011);
}

}  // namespace
