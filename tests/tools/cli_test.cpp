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

#ifndef QORCFG_EMULATOR
#define QORCFG_EMULATOR ""
#endif

// ---- running the tool ----------------------------------------------------------------

struct Result {
    int status = -1;  // exit status, or -1 when the tool did not exit normally
    int signal = 0;   // the signal that ended it, if any
    std::string out;
    std::string err;
};

// Splits a run line into words: spaces separate, '...' quotes.
std::vector<std::string> parse_words(const std::string &line) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        if (line[i] == ' ') {
            ++i;
            continue;
        }
        std::string word;
        bool any = false;
        while (i < line.size() && line[i] != ' ') {
            if (line[i] == '\'') {
                size_t end = line.find('\'', i + 1);
                if (end == std::string::npos)
                    throw std::runtime_error("unbalanced quote in: " + line);
                word += line.substr(i + 1, end - i - 1);
                i = end + 1;
            } else {
                word += line[i++];
            }
            any = true;
        }
        if (any)
            words.push_back(word);
    }
    return words;
}

// Runs "qorcfg --root ROOT ARGS..." with the caller's environment less
// QORCFG_PRINT_ERR, plus `env`.
Result run_cli(const std::string &root, const std::vector<std::string> &args,
               const std::vector<std::string> &env = {}) {
    std::vector<std::string> words = parse_words(QORCFG_EMULATOR);
    words.push_back(QORCFG_CLI);
    words.push_back("--root");
    words.push_back(root);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);

    std::vector<std::string> env_words;
    for (char **e = environ; *e != nullptr; ++e) {
        if (std::string_view(*e).starts_with("QORCFG_PRINT_ERR="))
            continue;
        env_words.push_back(*e);
    }
    env_words.insert(env_words.end(), env.begin(), env.end());
    std::vector<char *> envp;
    for (std::string &w : env_words)
        envp.push_back(w.data());
    envp.push_back(nullptr);

    // The output files are siblings of the device root, not inside it.
    const std::string out = root + ".stdout", err = root + ".stderr";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        throw std::runtime_error(std::string("cannot start ") + argv[0]);
    int wstatus = 0;
    while (::waitpid(pid, &wstatus, 0) < 0) {
        if (errno != EINTR)
            throw std::runtime_error("waitpid failed");
    }
    Result result;
    if (WIFEXITED(wstatus))
        result.status = WEXITSTATUS(wstatus);
    else if (WIFSIGNALED(wstatus))
        result.signal = WTERMSIG(wstatus);
    result.out = qorcfg::test::read_file(out);
    result.err = qorcfg::test::read_file(err);
    std::remove(out.c_str());
    std::remove(err.c_str());
    return result;
}

// A sandbox holding a copy of the sample device root. Run-time files a
// session on the source tree may have left under tmp/ are not part of it.
class DeviceRoot {
public:
    DeviceRoot() {
        fs::copy(qorcfg::test::devroot(), sandbox_.root(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        for (const auto &entry : fs::directory_iterator(sandbox_.path("/tmp"))) {
            if (entry.path().filename() != ".keep")
                fs::remove_all(entry.path());
        }
    }
    const std::string &root() const { return sandbox_.root(); }
    const qorcfg::test::Sandbox &sandbox() const { return sandbox_; }

private:
    qorcfg::test::Sandbox sandbox_;
};

// ---- transcripts ----------------------------------------------------------------------

struct Transcript {
    std::string header;  // comment, run and env lines, as written
    std::vector<std::string> args;
    std::vector<std::string> env;
    int status = 0;
    bool stdout_prefix = false;  // "stdout begins:"
    std::string out;
    std::string err;
};

fs::path golden_path(const std::string &name) {
    return fs::path(QORCFG_GOLDEN_DIR) / (name + ".txt");
}

Transcript load_transcript(const std::string &name) {
    std::ifstream in(golden_path(name));
    if (!in)
        throw std::runtime_error("cannot read " + golden_path(name).string());
    Transcript t;
    enum { head, out, err } part = head;
    bool have_run = false;
    bool have_status = false;
    for (std::string line; std::getline(in, line);) {
        if (part == head) {
            if (line.starts_with("#") || line.empty()) {
                t.header += line + "\n";
            } else if (line.starts_with("run:")) {
                t.header += line + "\n";
                t.args = parse_words(line.substr(4));
                have_run = true;
            } else if (line.starts_with("env: ")) {
                t.header += line + "\n";
                t.env.push_back(line.substr(5));
            } else if (line.starts_with("status: ")) {
                t.status = std::stoi(line.substr(8));
                have_status = true;
            } else if (line == "stdout:" || line == "stdout begins:") {
                t.stdout_prefix = line == "stdout begins:";
                part = out;
            } else {
                throw std::runtime_error(name + ": unexpected line: " + line);
            }
        } else if (part == out && line == "stderr:") {
            part = err;
        } else {
            (part == out ? t.out : t.err) += line + "\n";
        }
    }
    if (!have_run || !have_status || part != err)
        throw std::runtime_error(name + ": needs run, status, stdout and stderr");
    return t;
}

size_t count_lines(const std::string &text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// The first `lines` lines of `text`.
std::string first_lines(const std::string &text, size_t lines) {
    size_t end = 0;
    for (size_t n = 0; n < lines && end < text.size(); ++n) {
        size_t nl = text.find('\n', end);
        end = nl == std::string::npos ? text.size() : nl + 1;
    }
    return text.substr(0, end);
}

void save_transcript(const std::string &name, const Transcript &t, const Result &r) {
    std::ofstream out(golden_path(name), std::ios::trunc);
    out << t.header << "status: " << r.status << "\n"
        << (t.stdout_prefix ? "stdout begins:\n" : "stdout:\n")
        << (t.stdout_prefix ? first_lines(r.out, count_lines(t.out)) : r.out) << "stderr:\n"
        << r.err;
}

// Every transcript in tests/tools/golden/, by name.
std::vector<std::string> transcripts() {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(QORCFG_GOLDEN_DIR))
        if (entry.path().extension() == ".txt")
            names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

class Golden : public ::testing::TestWithParam<std::string> {};

TEST_P(Golden, OutputErrorsAndStatusMatchTheTranscript) {
    const std::string name = GetParam();
    Transcript t = load_transcript(name);
    DeviceRoot device;
    Result r = run_cli(device.root(), t.args, t.env);
    ASSERT_EQ(r.signal, 0) << "the tool was killed by signal " << r.signal << "\nstderr:\n"
                           << r.err;
    const char *update = std::getenv("QORCFG_UPDATE_GOLDEN");
    if (update != nullptr && std::string_view(update) == "1") {
        save_transcript(name, t, r);
        GTEST_SKIP() << "rewrote " << golden_path(name);
    }
    EXPECT_EQ(r.status, t.status);
    if (t.stdout_prefix)
        EXPECT_EQ(first_lines(r.out, count_lines(t.out)), t.out);
    else
        EXPECT_EQ(r.out, t.out);
    EXPECT_EQ(r.err, t.err);
}

INSTANTIATE_TEST_SUITE_P(Cli, Golden, ::testing::ValuesIn(transcripts()),
                         [](const ::testing::TestParamInfo<std::string> &param) {
                             return param.param;
                         });

// ---- the device root ------------------------------------------------------------------

// Every regular file under `root`, by relative path, with its content.
std::map<std::string, std::string> snapshot(const std::string &root) {
    std::map<std::string, std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file())
            files[fs::relative(entry.path(), root).string()] =
                qorcfg::test::read_file(entry.path());
    }
    return files;
}

TEST(CliDeviceRoot, ReadingLeavesTheConfigurationFilesAlone) {
    DeviceRoot device;
    const auto before = snapshot(device.root());
    ASSERT_TRUE(before.contains("conf/config.xml")) << "the sample device has no flash copy";
    ASSERT_FALSE(before.contains("tmp/config.xml"));

    const std::vector<std::vector<std::string>> runs = {
        {"get", "sys_device", "name"},
        {"get", "0x10200400", "start"},
        {"get", "sys_device", "nosuch"},
        {"get", "nosuch", "name"},
        {"get-path", "qorconfig.network.lan.dhcp.static:1"},
        {"get-path", "qorconfig.network.lan.dhcp.static:1", "ip"},
        {"show", "lan_dhcp"},
        {"list-children", "lan_dhcp"},
        {"list-children", "0x18080000"},
        {"groups"},
    };
    for (const auto &args : runs) {
        Result r = run_cli(device.root(), args);
        EXPECT_EQ(r.signal, 0) << args[0];
    }

    const auto after = snapshot(device.root());
    for (const auto &[path, content] : before) {
        auto found = after.find(path);
        ASSERT_NE(found, after.end()) << path << " was removed";
        EXPECT_EQ(found->second, content) << path << " was changed";
    }
    for (const auto &[path, content] : after) {
        if (before.contains(path))
            continue;
        EXPECT_TRUE(path == "tmp/config.xml" || path.starts_with("var/lock/"))
            << "unexpected new file " << path;
    }
    // The working copy was made from the flash copy on the first open.
    ASSERT_TRUE(after.contains("tmp/config.xml"));
    EXPECT_EQ(after.at("tmp/config.xml"), before.at("conf/config.xml"));
}

// ---- hostile arguments ----------------------------------------------------------------

TEST(CliArguments, NoArgumentCrashesTheTool) {
    DeviceRoot device;
    const std::string long_name(5000, 'x');
    const std::string long_path = "qorconfig" + std::string(60000, '.');
    std::string deep_path = "qorconfig";
    for (int i = 0; i < 5000; ++i)
        deep_path += ".a:1";
    const std::vector<std::vector<std::string>> runs = {
        {"get", "", ""},
        {"get", "sys_device", ""},
        {"get", "", "name"},
        {"get", "0", "version"},
        {"get", "0x0", "nosuch"},
        {"get", long_name, "name"},
        {"get", "sys_device", long_name},
        {"get", "sys_device", std::string(64, 'y')},
        {"get", "sys_device", "..."},
        {"get", "sys_device", "a:b.c"},
        {"get", "0x", "name"},
        {"get", "0xZZ", "name"},
        {"get", "0x123456789", "name"},
        {"get", "0x-1", "name"},
        {"get", "0x 1", "name"},
        {"get", "0xffffffff", "name"},
        {"get-path", ""},
        {"get-path", "", ""},
        {"get-path", long_path},
        {"get-path", deep_path, "x"},
        {"get-path", "qorconfig.network.lan.dhcp.static:99999999999999999999"},
        {"get-path", "qorconfig.network.lan.dhcp.static:-1"},
        {"get-path", "qorconfig.network.lan.dhcp.static:", "ip"},
        {"get-path", "qorconfig..", ""},
        {"get-path", ":"},
        {"get-path", "qorconfig.system.device", long_name},
        {"show", ""},
        {"show", long_name},
        {"show", "0x"},
        {"show", "0x0"},
        {"list-children", ""},
        {"list-children", long_name},
        {"list-children", "0xffffffff"},
        {"list-children", "0x0"},
        {"groups", ""},
        {"--root", ""},
        {"--root=", "groups"},
        {""},
        {"-"},
        {"--"},
        {"--help=yes"},
    };
    for (const auto &args : runs) {
        std::string shown;
        for (const auto &a : args)
            shown += " '" + a.substr(0, 40) + (a.size() > 40 ? "...'" : "'");
        Result r = run_cli(device.root(), args, {"QORCFG_PRINT_ERR=0"});
        EXPECT_EQ(r.signal, 0) << "qorcfg" << shown;
        EXPECT_TRUE(r.status == 0 || r.status == 1 || r.status == 3 || r.status == 4 ||
                    r.status == 64)
            << "qorcfg" << shown << ": status " << r.status;
        if (r.status != 0) {
            EXPECT_TRUE(r.err.starts_with("qorcfg: ")) << "qorcfg" << shown << ": " << r.err;
            EXPECT_TRUE(r.out.empty()) << "qorcfg" << shown;
        }
    }
}

}  // namespace
