// tests/tools/cli_test.cpp - the qorcfg tool end to end: the built binary
// runs on a sandbox copy of the sample device root (through the emulator
// when cross compiled), and its standard output, standard error and exit
// status are compared with the golden transcripts in tests/tools/golden/.
//
// A transcript file:
//   # what the case shows               (comment lines, first)
//   run: get sys_device name            (arguments after "qorcfg --root ROOT";
//                                        split at spaces, '' is an empty word
//                                        and '...' a word with spaces)
//   env: QORCFG_PRINT_ERR=0             (optional, repeatable)
//   truncate: conf/config.xml 3000      (optional: the root's file cut short
//                                        at that many bytes before the run)
//   write: var/run/snmpd.pid 813        (optional: a line appended to a file
//                                        of the root before the run)
//   before: set rf1 channel=11          (optional: runs before the run, in
//                                        order, each of which must succeed)
//   status: 0
//   stdout:                             ("stdout begins:" compares only the
//   ...                                  first lines)
//   stderr:
//   ...
// Every line after "stdout:" up to "stderr:", and every line after
// "stderr:", is expected exactly, with its line end. QORCFG_UPDATE_GOLDEN=1
// in the environment rewrites the transcripts from the actual runs.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include "tests/support/fixtures.h"

extern char **environ;

namespace {

namespace fs = std::filesystem;
using qorcfg::test::read_file;

// ---- running the tool ----------------------------------------------------------------

struct Result {
    int status, signal;  // the exit status (-1 when killed); the signal that ended it, or 0
    std::string out, err;
};

// Splits a run line into words: spaces separate, '...' quotes.
std::vector<std::string> parse_words(const std::string &line) {
    std::vector<std::string> words;
    for (size_t i = line.find_first_not_of(' '); i != std::string::npos;
         i = line.find_first_not_of(' ', i)) {
        std::string word;
        while (i < line.size() && line[i] != ' ') {
            const size_t end = line[i] == '\'' ? line.find('\'', i + 1) : i;
            if (end == std::string::npos)
                throw std::runtime_error("unbalanced quote in: " + line);
            word += end == i ? line.substr(i, 1) : line.substr(i + 1, end - i - 1);
            i = end + 1;
        }
        words.push_back(word);
    }
    return words;
}

std::vector<char *> pointers(std::vector<std::string> &words) {
    std::vector<char *> out;
    for (std::string &w : words)
        out.push_back(w.data());
    out.push_back(nullptr);
    return out;
}

// Runs "qorcfg --root ROOT ARGS..." with the caller's environment less
// QORCFG_PRINT_ERR, plus `env`.
Result run_cli(const std::string &root, const std::vector<std::string> &args,
               const std::vector<std::string> &env = {}) {
    std::vector<std::string> words = parse_words(QORCFG_EMULATOR), env_words = env;
    words.insert(words.end(), {QORCFG_CLI, "--root", root});
    words.insert(words.end(), args.begin(), args.end());
    for (char **e = environ; *e != nullptr; ++e)
        if (!std::string_view(*e).starts_with("QORCFG_PRINT_ERR="))
            env_words.push_back(*e);
    std::vector<char *> argv = pointers(words), envp = pointers(env_words);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    // The tool writes to this process's output and errors, captured meanwhile.
    qorcfg::test::CaptureOutput out(STDOUT_FILENO), err(STDERR_FILENO);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    int wstatus = 0;
    if (rc != 0 || TEMP_FAILURE_RETRY(::waitpid(pid, &wstatus, 0)) != pid)
        throw std::runtime_error(std::string("cannot run ") + argv[0]);
    return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1,
            WIFSIGNALED(wstatus) ? WTERMSIG(wstatus) : 0, out.text(), err.text()};
}

// A sandbox holding a copy of the sample device root. Run-time files a
// session on the source tree may have left under tmp/ are not part of it.
struct DeviceRoot : qorcfg::test::Sandbox {
    DeviceRoot() {
        fs::copy(qorcfg::test::devroot(), root(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        for (const auto &entry : fs::directory_iterator(path("/tmp")))
            if (entry.path().filename() != ".keep")
                fs::remove_all(entry.path());
    }
};

// ---- transcripts ----------------------------------------------------------------------

struct Transcript {
    std::string header;  // comment, run and env lines, as written
    std::vector<std::string> args, env;
    std::vector<std::pair<std::string, uintmax_t>> cuts;      // "truncate:" lines
    std::vector<std::pair<std::string, std::string>> writes;  // "write:" lines
    std::vector<std::vector<std::string>> before;             // "before:" lines
    int status = -1;
    bool stdout_prefix = false;  // "stdout begins:"
    std::string out, err;
};

fs::path golden_path(const std::string &name) {
    return fs::path(QORCFG_GOLDEN_DIR) / (name + ".txt");
}

Transcript load_transcript(const std::string &name) {
    std::ifstream in(golden_path(name));
    Transcript t;
    std::string *body = nullptr;  // t.out after "stdout:", then t.err after "stderr:"
    bool have_run = false;
    for (std::string line; std::getline(in, line);) {
        if (body == &t.out && line == "stderr:")
            body = &t.err;
        else if (body != nullptr)
            *body += line + "\n";
        else if (line.starts_with("status: "))
            t.status = std::stoi(line.substr(8));
        else if (line == "stdout:" || line == "stdout begins:")
            t.stdout_prefix = line != "stdout:", body = &t.out;
        else if (line.starts_with("run:"))
            t.args = parse_words(line.substr(4)), have_run = true, t.header += line + "\n";
        else if (line.starts_with("env: "))
            t.env.push_back(line.substr(5)), t.header += line + "\n";
        else if (line.starts_with("truncate: ")) {
            const auto w = parse_words(line.substr(10));
            t.cuts.emplace_back(w.at(0), std::stoull(w.at(1))), t.header += line + "\n";
        } else if (line.starts_with("write: ")) {
            const size_t space = line.find(' ', 7);
            if (space == std::string::npos)
                throw std::runtime_error(name + ": write: FILE LINE expected: " + line);
            t.writes.emplace_back(line.substr(7, space - 7), line.substr(space + 1) + "\n");
            t.header += line + "\n";
        } else if (line.starts_with("before: "))
            t.before.push_back(parse_words(line.substr(8))), t.header += line + "\n";
        else if (line.empty() || line.starts_with("#"))
            t.header += line + "\n";
        else
            throw std::runtime_error(name + ": unexpected line: " + line);
    }
    if (!have_run || t.status < 0 || body != &t.err)
        throw std::runtime_error(name + ": needs run, status, stdout and stderr");
    return t;
}

// The first lines of `text`, as many as `like` has.
std::string first_lines(const std::string &text, const std::string &like) {
    size_t end = 0;
    for (auto n = std::count(like.begin(), like.end(), '\n'); n > 0 && end < text.size(); --n)
        end = std::min(text.find('\n', end), text.size() - 1) + 1;
    return text.substr(0, end);
}

// Every transcript in tests/tools/golden/, by name.
std::vector<std::string> transcripts() {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(QORCFG_GOLDEN_DIR))
        if (entry.path().extension() == ".txt")
            names.push_back(entry.path().stem().string());
    return names;
}

class Golden : public ::testing::TestWithParam<std::string> {};

TEST_P(Golden, OutputErrorsAndStatusMatchTheTranscript) {
    const std::string name = GetParam();
    const Transcript t = load_transcript(name);
    DeviceRoot device;
    for (const auto &[file, size] : t.cuts)
        fs::resize_file(device.root() + "/" + file, size);
    for (const auto &[file, text] : t.writes)
        std::ofstream(device.root() + "/" + file, std::ios::app) << text;
    for (const auto &args : t.before) {
        const Result b = run_cli(device.root(), args, t.env);
        ASSERT_EQ(b.status, 0) << "before: " << args.at(0) << "\n" << b.err;
    }
    const Result r = run_cli(device.root(), t.args, t.env);
    ASSERT_EQ(r.signal, 0) << "the tool was killed; stderr:\n" << r.err;
    const std::string out = t.stdout_prefix ? first_lines(r.out, t.out) : r.out;
    const char *update = std::getenv("QORCFG_UPDATE_GOLDEN");
    if (update != nullptr && std::string_view(update) == "1") {
        std::ofstream(golden_path(name), std::ios::trunc)
            << t.header << "status: " << r.status << "\n"
            << (t.stdout_prefix ? "stdout begins:\n" : "stdout:\n") << out << "stderr:\n"
            << r.err;
        GTEST_SKIP() << "rewrote " << golden_path(name);
    }
    EXPECT_EQ(r.status, t.status);
    EXPECT_EQ(out, t.out);
    EXPECT_EQ(r.err, t.err);
}

INSTANTIATE_TEST_SUITE_P(Cli, Golden, ::testing::ValuesIn(transcripts()),
                         [](const auto &param) { return param.param; });

// ---- statuses of hostile arguments; reads leave the files alone -----------------------

// Every regular file under `root`, by relative path, with its content.
std::map<std::string, std::string> snapshot(const std::string &root) {
    std::map<std::string, std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator(root))
        if (entry.is_regular_file())
            files[fs::relative(entry.path(), root).string()] = read_file(entry.path());
    return files;
}

TEST(CliArguments, EachEndsInItsStatusAndNoneChangesTheConfiguration) {
    DeviceRoot device;
    const auto before = snapshot(device.root());
    ASSERT_TRUE(before.contains("conf/config.xml") && !before.contains("tmp/config.xml"));
    std::string deep_path = "qorconfig";
    for (int i = 0; i < 5000; ++i)
        deep_path += ".a:1";
    // 0: success; 1, 3, 4: the library's -1, -3 (unknown group), -4 (item
    // not found), 15 (index beyond "max"); 64: a usage error, found before
    // any lookup.
    const std::pair<std::vector<std::string>, int> runs[] = {
        {{"show", std::string(128, 'x')}, 3},  // the longest group name
        {{"show", std::string(129, 'x')}, 64},
        {{"get", "sys_device", std::string(64, 'y')}, 4},  // the longest item
        {{"get", "sys_device", std::string(65, 'y')}, 64},
        {{"get", "0x", "name"}, 64},
        {{"get", "0x123456789", "name"}, 64},
        {{"get", "sys_device", "a:b.c"}, 1},
        {{"show", "0x0"}, 3},  // the root is no group to list
        {{"get-path", "qorconfig" + std::string(60000, '.')}, 0},
        {{"get-path", deep_path, "x"}, 1},
        {{"get-path", "qorconfig.network.lan.dhcp.static:99999999999999999999"}, 1},
        {{"get-path", "qorconfig.network.lan.dhcp.static:", "ip"}, 0},
        {{"get-path", "qorconfig.system.device", std::string(5000, 'x')}, 4},
        {{"--root=", "groups"}, 64},
        {{"--help=yes"}, 64},
        {{"get", "sys_device", "name"}, 0},
        {{"show", "lan_dhcp"}, 0},
        {{"list-children", "0x18080000"}, 0},
        {{"set", "--no-validate", "sys_device", "name=ap-2", "nosuch=1"}, 4},  // a failed set
        {{"set", "sys_device", "name=ap-2", "led=blink"},
         12},  // and a rejected value write nothing
        {{"set", "lan_dhcp", "static:32.ip=10.0.0.9"}, 15},
        {{"set", "no_such_group", "a=1"}, 3},
    };
    for (const auto &[args, status] : runs) {
        std::string shown = "qorcfg";
        for (const auto &a : args)
            shown += " '" + a.substr(0, 40) + (a.size() > 40 ? "...'" : "'");
        const Result r = run_cli(device.root(), args, {"QORCFG_PRINT_ERR=0"});
        EXPECT_TRUE(r.status == status && r.signal == 0 &&
                    (status == 0 || (r.err.starts_with("qorcfg: ") && r.out.empty())))
            << shown << ": status " << r.status << ", signal " << r.signal << ", " << r.err;
    }
    // Only the working copy, made from the flash copy on the first open, and
    // lock files are new.
    auto after = snapshot(device.root());
    EXPECT_EQ(after["tmp/config.xml"], before.at("conf/config.xml"));
    std::erase_if(after, [&before](const auto &file) {
        return !before.contains(file.first) &&
               (file.first == "tmp/config.xml" || file.first.starts_with("var/lock/"));
    });
    EXPECT_EQ(after, before);
}

}  // namespace
