/* qorcfg_offline.h - for programs on a development host: point the
 * configuration library at an unpacked device image instead of this
 * machine's files. Only programs linked with the static archive libqorcfg.a
 * have these functions (cc -static prog.c $(pkg-config --static --cflags
 * --libs qorcfg)); libqorcfg.so.1 does not export them, and nothing reads
 * them from the environment, so a device never points elsewhere. */
#ifndef QORCFG_OFFLINE_H
#define QORCFG_OFFLINE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Every absolute path the library opens from now on is taken below `dir`
 * (made absolute), the daemon is asked on DIR/tmp/qorcfgd_socket, and the
 * commands and signals the library would send are recorded, not run or sent.
 * 0, or -1 when `dir` is not a directory. */
int qorcfg_offline_root(const char *dir);

/* Prints to standard error, as "<program>: not run offline: ..." and "not
 * sent offline: ...", what the library would have run or signalled. */
void qorcfg_offline_report(const char *program);

#ifdef __cplusplus
}
#endif

#endif /* QORCFG_OFFLINE_H */
