// os/os.cpp - the operating-system seam: path rooting, command running and
// recording, signals, sockets, driver requests, time, and fault injection.
//
// The fast path (nothing configured) is one test of a process global per
// call; everything else is for tests and the offline tool.
#include "os/os.h"
#include "os/owners.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

// The stand-in platform library reads its device files under the same root;
// a device's own platform library does not have this hook.
extern "C" int vq19ext_set_root(const char *root) __attribute__((weak));

namespace qorcfg::os {
namespace {

struct Fault {
    unsigned calls = 0;   // calls seen since armed or reset
    unsigned nth = 0;     // 0 = disarmed
    bool sticky = false;  // fail from nth on, not only at nth
    int err = 0;
};

struct State {
    std::string root;
    Runner *runner = nullptr;
    std::string socket_path = "/tmp/qorcfgd_socket";
    std::chrono::milliseconds daemon_timeout = kDaemonTimeout;
    IoctlHandler ioctl_handler;
    Clock clock;
    std::array<Fault, static_cast<size_t>(Call::count_)> faults{};
    bool counting = false;
    CallHook hook;
    // Streams handed out by popen() while a runner is installed, with the
    // text they read and the status pclose() returns for them.
    struct Canned {
        std::unique_ptr<std::string> text;  // stable address for fmemopen
        int status;
    };
    std::map<FILE *, Canned> canned;
};

State &state() {
    static State s;
    return s;
}

// Set while any fault is armed or counting is on: the only cost of the
// fault hook in production is this test.
bool g_watching = false;

void update_watching() {
    const State &s = state();
    g_watching =
        s.counting || s.hook ||
        std::any_of(s.faults.begin(), s.faults.end(), [](const Fault &f) { return f.nth != 0; });
}

// True when this call of `kind` must fail; errno is then set.
bool faulted(Call kind) {
    if (!g_watching)
        return false;
    Fault &f = state().faults[static_cast<size_t>(kind)];
    ++f.calls;
    if (state().hook)
        state().hook(kind, f.calls);
    if (f.nth == 0)
        return false;
    if (f.calls == f.nth || (f.sticky && f.calls > f.nth)) {
        errno = f.err;
        if (!f.sticky) {
            f.nth = 0;
            update_watching();
        }
        return true;
    }
    return false;
}

// The path handed to the system: absolute paths are moved under the root.
class Rooted {
public:
    explicit Rooted(const char *path) : path_(path) {
        const std::string &root = state().root;
        if (!root.empty() && path != nullptr && path[0] == '/') {
            joined_ = root + path;
            path_ = joined_.c_str();
        }
    }
    const char *c_str() const { return path_; }

private:
    const char *path_;
    std::string joined_;
};

}  // namespace

// ---- files --------------------------------------------------------------------

void set_root(std::string_view root) {
    std::string r(root);
    while (r.size() > 1 && r.back() == '/')
        r.pop_back();
    state().root = r == "/" ? std::string() : r;
    if (vq19ext_set_root != nullptr)
        vq19ext_set_root(state().root.c_str());
}

const std::string &root() {
    return state().root;
}

std::string host_path(const char *path) {
    return Rooted(path).c_str();
}

FILE *fopen(const char *path, const char *mode) {
    if (faulted(Call::open))
        return nullptr;
    return ::fopen(Rooted(path).c_str(), mode);
}

int open(const char *path, int flags, mode_t mode) {
    if (faulted(Call::open))
        return -1;
    return ::open(Rooted(path).c_str(), flags, mode);
}

int close(int fd) {
    return ::close(fd);
}

int access(const char *path, int mode) {
    if (faulted(Call::access))
        return -1;
    return ::access(Rooted(path).c_str(), mode);
}

int unlink(const char *path) {
    if (faulted(Call::unlink))
        return -1;
    return ::unlink(Rooted(path).c_str());
}

int rename(const char *from, const char *to) {
    if (faulted(Call::rename))
        return -1;
    return ::rename(Rooted(from).c_str(), Rooted(to).c_str());
}

ssize_t readlink(const char *path, char *buf, size_t size) {
    if (faulted(Call::readlink))
        return -1;
    return ::readlink(Rooted(path).c_str(), buf, size);
}

DIR *opendir(const char *path) {
    if (faulted(Call::open))
        return nullptr;
    return ::opendir(Rooted(path).c_str());
}

int chdir(const char *path) {
    if (faulted(Call::chdir))
        return -1;
    return ::chdir(Rooted(path).c_str());
}

int flock(int fd, int operation) {
    if (faulted(Call::flock))
        return -1;
    return ::flock(fd, operation);
}

void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) {
    if (faulted(Call::mmap))
        return MAP_FAILED;
    return ::mmap(addr, length, prot, flags, fd, offset);
}

int munmap(void *addr, size_t length) {
    return ::munmap(addr, length);
}

// ---- descriptors -----------------------------------------------------------------

ssize_t read(int fd, void *buf, size_t size) {
    if (faulted(Call::read))
        return -1;
    return ::read(fd, buf, size);
}

ssize_t write(int fd, const void *buf, size_t size) {
    if (faulted(Call::write))
        return -1;
    return ::write(fd, buf, size);
}

int fstat(int fd, struct stat *st) {
    if (faulted(Call::fstat))
        return -1;
    return ::fstat(fd, st);
}

int fsync(int fd) {
    if (faulted(Call::fsync))
        return -1;
    return ::fsync(fd);
}

// ---- writing a file whole ---------------------------------------------------------

namespace {

// Follows symbolic links from the device path `path` to the file it finally
// names (which need not exist); an absolute link target is a device path
// too. False with errno set when a link cannot be read or they loop.
bool follow_links(std::string &path) {
    for (int hops = 0; hops < 16; ++hops) {
        char target[PATH_MAX];
        ssize_t n = ::readlink(Rooted(path.c_str()).c_str(), target, sizeof target - 1);
        if (n < 0)
            return errno == EINVAL || errno == ENOENT;  // not a link, or nothing there yet
        target[n] = '\0';
        const size_t slash = path.rfind('/');
        if (target[0] == '/' || slash == std::string::npos)
            path = target;
        else
            path = path.substr(0, slash + 1) + target;
    }
    errno = ELOOP;
    return false;
}

// Writes all of `data` to `fd` and flushes it to the device.
bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data.remove_prefix(static_cast<size_t>(n));
    }
    return fsync(fd) == 0;
}

// Closes `fd`, keeping errno when `ok` is already false.
bool close_after(int fd, bool ok) {
    const int saved = errno;
    const bool closed = ::close(fd) == 0;
    if (!ok)
        errno = saved;
    return ok && closed;
}

// The directory part of a path, with its '/' ("" for a bare name).
std::string directory_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// Flushes the directory entry of a renamed file; not every file system can,
// and the file itself is already safe, so a failure changes nothing.
void sync_directory(const std::string &host) {
    const std::string dir = directory_of(host);
    int fd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

}  // namespace

int create_beside(const char *path, std::string &temp) {
    static std::atomic<unsigned> serial{0};
    const std::string target = path != nullptr ? path : "";
    const std::string dir = directory_of(target);
    const std::string base = target.substr(dir.size());
    for (int attempt = 0; attempt < 100; ++attempt) {
        temp = dir + "." + base + ".new-" + std::to_string(::getpid()) + "-" +
               std::to_string(serial.fetch_add(1));
        int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

int rename_keeping_mode(const char *from, const char *to) {
    struct stat st;
    const std::string target = Rooted(to).c_str();
    if (::stat(target.c_str(), &st) == 0 && ::chmod(Rooted(from).c_str(), st.st_mode & 07777) != 0)
        return -1;
    return rename(from, to);
}

bool read_text(const char *path, std::string &text) {
    const File f(os::fopen(path, "r"));
    if (!f)
        return false;
    text.clear();
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, f.get())) > 0;)
        text.append(chunk, n);
    return std::ferror(f.get()) == 0;
}

int write_file(const char *path, std::string_view data) {
    if (path == nullptr || path[0] == '\0') {
        errno = ENOENT;
        return -1;
    }
    std::string target = path;
    if (!follow_links(target))
        return -1;
    const std::string host = Rooted(target.c_str()).c_str();
    const bool exists = ::access(host.c_str(), F_OK) == 0;
    if (exists && ::access(host.c_str(), W_OK) != 0)
        return -1;

    std::string temp;
    int fd = create_beside(target.c_str(), temp);
    if (fd < 0) {
        if (!exists)
            return -1;
        // The directory takes no new file, but the file may be written.
        fd = open(target.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        if (fd < 0)
            return -1;
        return close_after(fd, write_all(fd, data)) ? 0 : -1;
    }
    const bool ok = close_after(fd, write_all(fd, data)) &&
                    rename_keeping_mode(temp.c_str(), target.c_str()) == 0;
    if (!ok) {
        const int saved = errno;
        ::unlink(Rooted(temp.c_str()).c_str());
        errno = saved;
        return -1;
    }
    sync_directory(host);
    return 0;
}

// ---- memory ---------------------------------------------------------------------

void *malloc(size_t size) {
    return faulted(Call::alloc) ? nullptr : std::malloc(size);
}

void *calloc(size_t count, size_t size) {
    return faulted(Call::alloc) ? nullptr : std::calloc(count, size);
}

void *realloc(void *ptr, size_t size) {
    return faulted(Call::alloc) ? nullptr : std::realloc(ptr, size);
}

char *strdup(const char *text) {
    return faulted(Call::alloc) ? nullptr : ::strdup(text);
}

// ---- commands and signals -------------------------------------------------------

void Runner::answer(std::string prefix, Reply reply) {
    for (auto &entry : replies_) {
        if (entry.first == prefix) {
            entry.second = std::move(reply);
            return;
        }
    }
    replies_.emplace_back(std::move(prefix), std::move(reply));
}

void Runner::answer(std::string prefix, std::string output, int status) {
    answer(std::move(prefix), Reply{std::move(output), status, false});
}

std::vector<std::string> Runner::lines() const {
    std::vector<std::string> out;
    out.reserve(commands_.size());
    for (const Command &c : commands_)
        out.push_back(c.line);
    return out;
}

void Runner::clear() {
    commands_.clear();
    signals_.clear();
}

Reply Runner::run(Command::Kind kind, std::string_view line) {
    commands_.push_back({kind, std::string(line)});
    if (observer_)
        observer_(commands_.back());
    const Reply *best = nullptr;
    size_t best_len = 0;
    for (const auto &[prefix, reply] : replies_) {
        if (line.substr(0, prefix.size()) == prefix &&
            (best == nullptr || prefix.size() > best_len)) {
            best = &reply;
            best_len = prefix.size();
        }
    }
    return best != nullptr ? *best : Reply{};
}

// A stream that reads the canned output like a pipe. The text lives in the
// canned-stream table until pclose(), so the memory stream can point into it.
static FILE *canned_pipe(Reply reply) {
    State &s = state();
    if (reply.output.empty()) {
        FILE *f = ::fopen("/dev/null", "r");
        if (f != nullptr)
            s.canned.emplace(f, State::Canned{nullptr, reply.status});
        return f;
    }
    auto text = std::make_unique<std::string>(std::move(reply.output));
    FILE *f = ::fmemopen(text->data(), text->size(), "r");
    if (f != nullptr)
        s.canned.emplace(f, State::Canned{std::move(text), reply.status});
    return f;
}

void set_runner(Runner *r) {
    state().runner = r;
}

Runner *runner() {
    return state().runner;
}

int system(const char *line) {
    if (faulted(Call::system))
        return -1;
    if (Runner *r = state().runner) {
        Reply reply = r->run(Command::system, line != nullptr ? line : "");
        return reply.fail ? -1 : reply.status;
    }
    return ::system(line);
}

FILE *popen(const char *line, const char *mode) {
    if (faulted(Call::popen))
        return nullptr;
    if (Runner *r = state().runner) {
        Reply reply = r->run(Command::pipe, line != nullptr ? line : "");
        if (reply.fail) {
            errno = EMFILE;
            return nullptr;
        }
        return canned_pipe(std::move(reply));
    }
    return ::popen(line, mode);
}

int pclose(FILE *stream) {
    State &s = state();
    if (auto it = s.canned.find(stream); it != s.canned.end()) {
        int status = it->second.status;
        std::fclose(stream);
        s.canned.erase(it);
        return status;
    }
    return ::pclose(stream);
}

int kill(pid_t pid, int sig) {
    if (faulted(Call::kill))
        return -1;
    if (Runner *r = state().runner) {
        r->record_signal(pid, sig);
        return 0;
    }
    return ::kill(pid, sig);
}

// ---- sockets and driver requests -------------------------------------------------

void set_daemon_socket_path(std::string_view path) {
    state().socket_path = std::string(path);
}

const std::string &daemon_socket_path() {
    return state().socket_path;
}

void set_daemon_timeout(std::chrono::milliseconds limit) {
    state().daemon_timeout = limit;
}

std::chrono::milliseconds daemon_timeout() {
    return state().daemon_timeout;
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t size) {
    return ::setsockopt(fd, level, name, value, size);
}

int socket(int domain, int type, int protocol) {
    if (faulted(Call::socket))
        return -1;
    return ::socket(domain, type, protocol);
}

int connect(int fd, const struct sockaddr *addr, socklen_t len) {
    if (faulted(Call::connect))
        return -1;
    return ::connect(fd, addr, len);
}

int bind(int fd, const struct sockaddr *addr, socklen_t len) {
    if (faulted(Call::bind))
        return -1;
    return ::bind(fd, addr, len);
}

int listen(int fd, int backlog) {
    if (faulted(Call::listen))
        return -1;
    return ::listen(fd, backlog);
}

int accept(int fd, int flags) {
    if (faulted(Call::accept))
        return -1;
    return ::accept4(fd, nullptr, nullptr, flags);
}

int remove_socket(const char *path) {
    if (faulted(Call::unlink))
        return -1;
    return ::unlink(path);
}

ssize_t send(int fd, const void *buf, size_t len, int flags) {
    if (faulted(Call::send))
        return -1;
    return ::send(fd, buf, len, flags);
}

ssize_t recv(int fd, void *buf, size_t len, int flags) {
    if (faulted(Call::recv))
        return -1;
    return ::recv(fd, buf, len, flags);
}

void set_ioctl_handler(IoctlHandler handler) {
    state().ioctl_handler = std::move(handler);
}

int ioctl(int fd, unsigned long request, void *arg) {
    if (faulted(Call::ioctl))
        return -1;
    if (const IoctlHandler &h = state().ioctl_handler)
        return h(fd, request, arg);
    return ::ioctl(fd, request, arg);
}

// ---- time ------------------------------------------------------------------------

void set_clock(Clock clock) {
    state().clock = std::move(clock);
}

time_t time() {
    if (const Clock &c = state().clock)
        return c().tv_sec;
    return ::time(nullptr);
}

int gettimeofday(struct timeval *tv) {
    if (const Clock &c = state().clock) {
        *tv = c();
        return 0;
    }
    return ::gettimeofday(tv, nullptr);
}

// ---- faults ----------------------------------------------------------------------

void fail_nth(Call kind, unsigned nth, int err) {
    Fault &f = state().faults[static_cast<size_t>(kind)];
    f = Fault{0, nth, false, err};
    update_watching();
}

void fail_from(Call kind, unsigned nth, int err) {
    Fault &f = state().faults[static_cast<size_t>(kind)];
    f = Fault{0, nth, nth != 0, err};
    update_watching();
}

unsigned calls(Call kind) {
    return state().faults[static_cast<size_t>(kind)].calls;
}

void count_calls(bool on) {
    state().counting = on;
    update_watching();
}

void reset_faults() {
    State &s = state();
    s.faults.fill(Fault{});
    s.counting = false;
    update_watching();
}

void set_call_hook(CallHook hook) {
    state().hook = std::move(hook);
    update_watching();
}

void reset() {
    State &s = state();
    s.root.clear();
    if (vq19ext_set_root != nullptr)
        vq19ext_set_root("");
    s.runner = nullptr;
    s.socket_path = "/tmp/qorcfgd_socket";
    s.daemon_timeout = kDaemonTimeout;
    s.ioctl_handler = nullptr;
    s.clock = nullptr;
    reset_faults();
    set_call_hook(nullptr);
}

}  // namespace qorcfg::os
