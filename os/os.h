// os/os.h - the one place where the library meets the operating system.
//
// Every file the library opens, every command line it runs, every signal it
// sends and every socket or driver request it makes goes through here. In
// production nothing is configured: paths are used as given, commands run
// through the real shell and signals reach real processes, at the cost of
// one predictable branch per call.
//
// Tests and `qorcfg --root/--dry-run` configure the seam:
//   - a root directory prefixed to every absolute path,
//   - a runner that records command lines and signals and answers commands
//     with canned output instead of running them,
//   - the daemon socket path,
//   - a driver request handler and a clock,
//   - faults: the Nth call of a kind fails with a chosen errno.
// None of these setters is exported from the shared library; tests and tools
// link the static archive.
#pragma once

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qorcfg::os {

// ---- files ------------------------------------------------------------------

// Prefix every absolute path with `root` ("" = production behaviour).
void set_root(std::string_view root);
const std::string &root();
// The path the system call will see: root + path for an absolute path.
std::string host_path(const char *path);

FILE *fopen(const char *path, const char *mode);
int open(const char *path, int flags, mode_t mode = 0);
int close(int fd);
int access(const char *path, int mode);
int unlink(const char *path);
int rename(const char *from, const char *to);
ssize_t readlink(const char *path, char *buf, size_t size);
DIR *opendir(const char *path);
int chdir(const char *path);
int flock(int fd, int operation);
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset);
int munmap(void *addr, size_t length);

// ---- descriptors ------------------------------------------------------------

ssize_t read(int fd, void *buf, size_t size);
ssize_t write(int fd, const void *buf, size_t size);
int fstat(int fd, struct stat *st);
int fsync(int fd);

// ---- writing a file whole -----------------------------------------------------

// Creates a new, empty file in the directory of the device path `path`
// (named after it, starting with a dot), open for writing; its device path
// goes to `temp`. The descriptor, or -1 when the directory takes no new
// file.
int create_beside(const char *path, std::string &temp);

// Renames the device path `from` over `to`; when `to` exists, the renamed
// file first gets its permission bits. 0, or -1 with errno set.
int rename_keeping_mode(const char *from, const char *to);

// Writes `data` as the whole new content of the file at `path`, so that
// readers and a power cut see the old file or the new one, never a part:
// a temporary file in the target's directory is written, flushed to the
// device and renamed over the target (a symbolic link is followed to the
// file it names, whose mode the new file keeps; a new file gets 0666 less
// the umask), then the directory is flushed. On failure the old file stays
// and the temporary one is removed. A target that exists but may not be
// written fails first, as opening it for writing would. Where the directory
// takes no new file but the target itself may be written, the target is
// rewritten in place instead. 0, or -1 with errno set.
int write_file(const char *path, std::string_view data);

// The whole content of a file into `text`. False when it cannot be opened
// or read; throws std::bad_alloc when memory runs out.
bool read_text(const char *path, std::string &text);

// ---- memory -----------------------------------------------------------------
// Allocation through the seam so that tests can fail the Nth allocation.
void *malloc(size_t size);
void *calloc(size_t count, size_t size);
void *realloc(void *ptr, size_t size);
char *strdup(const char *text);

// ---- commands and signals ---------------------------------------------------

// What a runner is asked to do.
struct Command {
    enum Kind { system, pipe } kind;
    std::string line;  // the command line exactly as built
};

// A recorded signal.
struct Signal {
    pid_t pid;
    int sig;
};

// How a runner answers a command: the text a pipe reads and the status
// `system`/`pclose` return. `fail` makes `popen` return null (or `system`
// return -1) as if the shell could not be started.
struct Reply {
    std::string output;
    int status = 0;
    bool fail = false;
};

// Records commands and signals instead of running or sending them, and
// answers commands from canned replies: the reply of the longest registered
// prefix of the command line wins; without one the reply is empty output and
// status 0.
class Runner {
public:
    void answer(std::string prefix, Reply reply);
    void answer(std::string prefix, std::string output, int status = 0);
    // Called with each command as it is recorded (a dry run shows it in
    // place, among what the caller prints).
    void observe(std::function<void(const Command &)> observer) { observer_ = std::move(observer); }

    const std::vector<Command> &commands() const { return commands_; }
    const std::vector<Signal> &signals() const { return signals_; }
    // Just the command lines, in the order they were run.
    std::vector<std::string> lines() const;
    void clear();

    // Called by the seam.
    Reply run(Command::Kind kind, std::string_view line);
    void record_signal(pid_t pid, int sig) { signals_.push_back({pid, sig}); }

private:
    std::vector<std::pair<std::string, Reply>> replies_;
    std::vector<Command> commands_;
    std::vector<Signal> signals_;
    std::function<void(const Command &)> observer_;
};

// Install a runner (null = run commands for real and send real signals).
// The runner stays owned by the caller and must outlive its installation.
void set_runner(Runner *runner);
Runner *runner();

int system(const char *line);
FILE *popen(const char *line, const char *mode);
int pclose(FILE *stream);
int kill(pid_t pid, int sig);

// ---- sockets and driver requests --------------------------------------------

// Path of the configuration daemon's socket ("/tmp/qorcfgd_socket" unless
// changed; not prefixed with the root, since socket paths are short).
void set_daemon_socket_path(std::string_view path);
const std::string &daemon_socket_path();

// How long a daemon query waits to connect, to send and for each part of
// the reply before it counts as a transport failure (kDaemonTimeout unless
// changed): a hung daemon must not hang its clients.
inline constexpr std::chrono::milliseconds kDaemonTimeout{5000};
void set_daemon_timeout(std::chrono::milliseconds limit);
std::chrono::milliseconds daemon_timeout();

int setsockopt(int fd, int level, int name, const void *value, socklen_t size);

int socket(int domain, int type, int protocol);
int connect(int fd, const struct sockaddr *addr, socklen_t len);
int bind(int fd, const struct sockaddr *addr, socklen_t len);
int listen(int fd, int backlog);
// accept4() without the peer's address.
int accept(int fd, int flags);
// Removes a socket file; `path` is used as given (socket paths are never
// below the root).
int remove_socket(const char *path);
ssize_t send(int fd, const void *buf, size_t len, int flags);
ssize_t recv(int fd, void *buf, size_t len, int flags);

// Driver requests (ioctl). A handler installed by a test answers them instead
// of the kernel; null = real ioctl.
using IoctlHandler = std::function<int(int fd, unsigned long request, void *arg)>;
void set_ioctl_handler(IoctlHandler handler);
int ioctl(int fd, unsigned long request, void *arg);

// ---- time -------------------------------------------------------------------

// A clock installed by a test answers time() and gettimeofday(); null = real.
using Clock = std::function<struct timeval()>;
void set_clock(Clock clock);
time_t time();
int gettimeofday(struct timeval *tv);

// ---- faults -----------------------------------------------------------------

enum class Call {
    open,  // fopen, open, opendir
    access,
    unlink,
    rename,
    readlink,
    chdir,
    flock,
    mmap,
    read,
    write,
    fstat,
    fsync,
    alloc,  // malloc, calloc, realloc, strdup
    system,
    popen,
    kill,
    socket,
    connect,
    bind,
    listen,
    accept,
    send,
    recv,
    ioctl,
    count_
};

// Make the `nth` call of `kind` from now on (1 = the next one) fail with
// `err`; every later call succeeds again. n = 0 disarms.
void fail_nth(Call kind, unsigned nth, int err);
// Make every call of `kind` from the `nth` one on fail with `err`.
void fail_from(Call kind, unsigned nth, int err);
// Number of calls of `kind` since the last reset (counted only while some
// fault is armed or counting is switched on).
unsigned calls(Call kind);
void count_calls(bool on);
// Disarm every fault and zero the counters.
void reset_faults();
// Called before every call through the seam with its kind and its number
// among the calls of that kind (1 = the first since the counters were
// zeroed): a test can stop a process at any step, with a real signal.
using CallHook = std::function<void(Call kind, unsigned nth)>;
void set_call_hook(CallHook hook);

// Reset the whole seam to production behaviour.
void reset();

}  // namespace qorcfg::os
