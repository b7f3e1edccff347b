// store/item_list.cpp - item lists: the (group ID, name, value) chains that
// carry several items through one call.
#include <cstdlib>

#include "qorcfg.h"

extern "C" {

QORCFG_API int free_item_list(qorcfg_item *list) {
    while (list != nullptr) {
        qorcfg_item *next = list->next;  // read before the node goes
        std::free(list->name);
        std::free(list->value);
        std::free(list);
        list = next;
    }
    return 0;
}

}  // extern "C"
