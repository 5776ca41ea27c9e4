// Start-up seen from outside: the real binary in a scratch directory, its texts, exit
// status, files, signals; and the configuration values start-up derives, read from a
// forked child that ran start-up in-process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kestrane.h"
#include "ks_test_util.h"

namespace {

const std::string kBinary = KS_ENGINE_BINARY;

// A loopback address of this process's own for a console.
std::string ownLoopback(int n) {
    return "127." + std::to_string(1 + (getpid() >> 8) % 250) + "." + std::to_string(getpid() & 0xff) + "." +
           std::to_string(n);
}

// A configuration that starts; `extra` replaces or adds top-level members. Without a
// CLIPort of its own the engine runs with no console.
std::string config(const std::string& extra = "", bool withGtp = true) {
    std::string s = "{\n";
    if (withGtp) s += "  \"LOCAL_GTP_IP\": \"127.0.0.1\",\n";
    if (extra.find("CLIPort") == std::string::npos) s += "  \"CLIPort\": 0,\n";
    s += "  \"MaximumUE\": 1000";
    if (!extra.empty()) s += ",\n  " + extra;
    return s + "\n}\n";
}

struct Scratch {
    std::string dir = kst::makeTempDir("start");
    ~Scratch() { kst::removeTree(dir); }
    std::string writeConfig(const std::string& text) {
        kst::writeFile(dir + "/cfg.json", text);
        return dir + "/cfg.json";
    }
};

struct StopCase {
    const char* name;
    std::string cfg;
    const char* text;
};

TEST(Startup, BadConfigurationStopsWithItsTextAndStatusZero) {
    const std::vector<StopCase> cases = {
        {"broken json", "{ \"CLIPort\": ", "error loading config file:"},
        {"not an object", "[1,2]", "error loading config file:"},
        {"port below range", config("\"CLIPort\": 9117"), "CLI Port is out of Range=9117, should be between 9118 and 9130."},
        {"port above range", config("\"CLIPort\": 9131"), "CLI Port is out of Range=9131"},
        {"local address without IP", config("\"LocalAddress\": {\"IPVersion\": 4}"), "please configure LocalAddress-IP"},
        {"local address empty IP", config("\"LocalAddress\": {\"IP\": []}"), "please configure LocalAddress-IP"},
        {"local address IP not array", config("\"LocalAddress\": {\"IP\": \"127.0.0.1\"}"),
         "LocalAddress-IP should be an array"},
        {"no GTP address", config("", false), "unable to identify an_ip= version in GTP"},
        {"GTP address of neither kind", config("\"LOCAL_GTP_IP\": \"localhost\"", false),
         "unable to identify an_ip=localhost version in GTP"},
        {"GTP address with a leading dot", config("\"LOCAL_GTP_IP\": \".1\"", false), "unable to identify an_ip=.1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Scratch s;
        auto r = kst::runChild({kBinary, s.writeConfig(c.cfg)}, s.dir, 10);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_NE(r.out.find(c.text), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("Initalization of KsTest is completed"), std::string::npos);
    }
}

TEST(Startup, MissingArgumentAndMissingFile) {
    Scratch s;
    auto noArg = kst::runChild({kBinary}, s.dir, 10);
    EXPECT_EQ(noArg.exitStatus, 0);
    EXPECT_NE(noArg.out.find("please provide configuration file with full path., syntax: "), std::string::npos);
    EXPECT_NE(noArg.out.find(" ./config.json"), std::string::npos);

    auto missing = kst::runChild({kBinary, s.dir + "/nope.json"}, s.dir, 10);
    EXPECT_EQ(missing.exitStatus, 0);
    EXPECT_NE(missing.out.find("error loading config file:" + s.dir + "/nope.json  error:["), std::string::npos)
        << missing.out;
}

TEST(Startup, PortsAtTheEdgesStartAndSignalsEndTheProcess) {
    struct Case {
        std::string extra;
        int sig;
    };
    auto console = [](int port, int n) {
        return "\"CLIPort\": " + std::to_string(port) + ", \"LocalAddress\": {\"IP\": [\"" + ownLoopback(n) + "\"]}";
    };
    const std::vector<Case> cases = {{console(9118, 1), SIGTERM}, {console(9130, 2), SIGINT}, {"", SIGQUIT}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.extra + " signal " + std::to_string(c.sig));
        Scratch s;
        auto r = kst::runChild({kBinary, s.writeConfig(config(c.extra))}, s.dir, 8, c.sig);  // start-up must be over before the signal
        EXPECT_TRUE(r.timedOut) << "the engine runs until a signal ends it";
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        EXPECT_NE(r.out.find("Initalization of KsTest is completed"), std::string::npos) << r.out;
        std::string line = "Received signal=" + std::to_string(c.sig) + " exiting";
        for (const char* ch : {"stk", "per", "app", "cmn"})
            EXPECT_NE(kst::readLogDir(s.dir + "/logs/" + ch).find(line), std::string::npos) << ch;
    }
}

TEST(Startup, MakesItsDirectoriesAndLoadsBrokenListsAsEmpty) {
    Scratch s;
    mkdir((s.dir + "/data").c_str(), 0755);
    kst::writeFile(s.dir + "/data/tst.json", "[ {\"ID\": 1, ");
    kst::writeFile(s.dir + "/data/set.json", "[]");
    auto r = kst::runChild({kBinary, s.writeConfig(config())}, s.dir, 2.5, SIGTERM);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_NE(r.out.find("Loading TESTs Config Failed error:["), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Loading SETTINGS Config Failed error:["), std::string::npos);
    EXPECT_NE(r.out.find("Loading AMF Config Failed error:["), std::string::npos) << "missing files are reported too";
    EXPECT_NE(r.out.find("Initalization of KsTest is completed"), std::string::npos);
    for (const char* d : {"logs/stk", "logs/per", "logs/app", "logs/cmn"}) {
        struct stat st;
        ASSERT_EQ(stat((s.dir + "/" + d).c_str(), &st), 0) << d;
        EXPECT_EQ(st.st_mode & 0777, 0700u) << d;
    }
    EXPECT_EQ(kst::readFile(s.dir + "/data/tst.json"), "[ {\"ID\": 1, ") << "a broken list is never overwritten";
}

TEST(Startup, PrunesOldLogsOnlyWhenAskedAndAllowed) {
    struct Case {
        std::string extra;
        bool prunes;
    };
    const std::vector<Case> cases = {{"\"DeleteLogFiles\": 1, \"KeepLastLogFiles\": 2", true},
                                     {"\"DeleteLogFiles\": 1, \"KeepLastLogFiles\": 1", false},
                                     {"\"KeepLastLogFiles\": 10", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.extra);
        Scratch s;
        std::string cmn = s.dir + "/logs/per";  // written every second, so its own file is the newest
        __mv_mkpath(cmn.c_str(), 0700);
        for (int i = 0; i < 25; ++i) kst::writeFile(cmn + "/old" + std::to_string(i) + ".log", "x\n");
        auto r = kst::runChild({kBinary, s.writeConfig(config(c.extra))}, s.dir, 4, SIGTERM);
        EXPECT_EQ(r.exitStatus, 0);
        size_t left = kst::listFiles(cmn).size();
        if (c.prunes) EXPECT_EQ(left, 10u);
        else EXPECT_GE(left, 25u);
    }
}

// ---------------------------------------------------------------- values derived at start

struct Derived {
    uint32_t timeout, app, stk, cmn, port, ipCount, ueFiles;
};

// Runs start-up in a forked child (this process never starts the engine itself) and
// reports the values through a pipe.
Derived startInChild(const std::string& cfgText) {
    Scratch s;
    std::string path = s.writeConfig(cfgText);
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        if (chdir(s.dir.c_str()) != 0) _exit(2);
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        char* argv[] = {const_cast<char*>("kestrane"), const_cast<char*>(path.c_str()), nullptr};
        Derived d{};
        if (KsEngine__Startup(2, argv) == 1) {
            d = {__ksEngine->DefaultTimeoutSeconds, uint32_t(__mv_log_get_level(MV_APP_LOG)),
                 uint32_t(__mv_log_get_level(MV_STK_LOG)), uint32_t(__mv_log_get_level(MV_CMN_LOG)), __ksEngine->UECPort,
                 __ksEngine->localIPCount, __ksEngine->UEFileCount};
        }
        if (write(fds[1], &d, sizeof d) != sizeof d) _exit(3);
        _exit(0);
    }
    close(fds[1]);
    Derived d{};
    EXPECT_EQ(read(fds[0], &d, sizeof d), ssize_t(sizeof d));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return d;
}

TEST(StartupValues, TimeoutFloorAndDefault) {
    EXPECT_EQ(startInChild(config()).timeout, 7u);
    EXPECT_EQ(startInChild(config("\"DefaultTimeoutSeconds\": 0")).timeout, 2u);
    EXPECT_EQ(startInChild(config("\"DefaultTimeoutSeconds\": 1")).timeout, 2u);
    EXPECT_EQ(startInChild(config("\"DefaultTimeoutSeconds\": 30")).timeout, 30u);
}

TEST(StartupValues, LogLevelsOutsideTheRangeKeepOneForThatChannelOnly) {
    Derived d = startInChild(config("\"LogLevel\": {\"APPLICATION\": 0, \"STACK\": 6, \"COMMON\": 4}"));
    EXPECT_EQ(d.app, 1u);
    EXPECT_EQ(d.stk, 1u);
    EXPECT_EQ(d.cmn, 4u);
    Derived none = startInChild(config());
    EXPECT_EQ(none.app, 1u);
    EXPECT_EQ(none.cmn, 1u);
}

TEST(StartupValues, ListsAreCutAtTenAndPortDefaults) {
    std::string ips, files;
    for (int i = 0; i < 12; ++i) {
        ips += std::string(i ? "," : "") + "\"" + ownLoopback(i + 10) + "\"";
        files += std::string(i ? "," : "") + "{\"Name\": \"f" + std::to_string(i) + ".json\", \"Enabled\": 0}";
    }
    Derived d = startInChild(config("\"CLIPort\": 9119, \"LocalAddress\": {\"IP\": [" + ips + "]}, \"UEFiles\": [" + files + "]"));
    EXPECT_EQ(d.ipCount, 10u);
    EXPECT_EQ(d.ueFiles, 10u);
    EXPECT_EQ(d.port, 9119u);
}

}  // namespace
