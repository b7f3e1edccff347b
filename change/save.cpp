// change/save.cpp - writing a tree or a text whole to a store file, under
// the file's own lock, so that a reader or a power cut sees the old file or
// the new one.
#include <sys/file.h>

#include <cstring>
#include <string_view>

#include "os/os.h"
#include "os/owners.h"
#include "store/store.h"

using namespace qorcfg;

extern "C" {

QORCFG_API int write_cfg_file(const char *text, const char *path, int length) {
    if (text == nullptr)
        return QORCFG_ERR_NOTEXT;
    if (path == nullptr || path[0] == '\0')
        return QORCFG_ERR_OPEN;
    store::HeldLock lock(store::file_kind(path), LOCK_EX);
    if (!lock.held())
        return QORCFG_ERR_LOCK;
    // A positive length is the caller's count of bytes (a text may hold
    // zeros); 0 is the text to its end; a negative one leaves the file empty.
    std::string_view data;
    if (length > 0)
        data = std::string_view(text, static_cast<size_t>(length));
    else if (length == 0)
        data = text;
    return os::write_file(path, data) == 0 ? QORCFG_OK : QORCFG_ERR_OPEN;
}

QORCFG_API int save_qorcfg(qorcfg_handle *handle, const char *path) {
    ezxml_node *tree = store::tree_of(handle);
    if (tree == nullptr)
        return QORCFG_ERR_FAIL;
    os::Text text(ezxml_toxml(tree));
    return write_cfg_file(text.get(), path, 0);
}

QORCFG_API int save_qorcfg_r(qorcfg_handle *handle, const char *path) {
    const int rc = save_qorcfg(handle, path);
    if (rc == QORCFG_OK)
        store::signal_daemons();
    return rc;
}

}  // extern "C"
