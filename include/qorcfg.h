/*
 * qorcfg.h - the exported interface of libqorcfg.so.1, the configuration
 * library of the access point.
 *
 * C11 and C++ both compile it. Every function and data object declared here
 * has C linkage; nothing else is exported. Lists are freed with their own
 * free_* function, handles are given back with close_qorcfg, and texts the
 * library allocates for the caller are freed with free().
 */
#ifndef QORCFG_H
#define QORCFG_H

#include "qorcfg/apply.h"
#include "qorcfg/backup.h"
#include "qorcfg/base.h"
#include "qorcfg/change.h"
#include "qorcfg/store.h"
#include "qorcfg/sys.h"
#include "qorcfg/validate.h"
#include "qorcfg/wlan.h"
#include "qorcfg/xml.h"

#endif /* QORCFG_H */
