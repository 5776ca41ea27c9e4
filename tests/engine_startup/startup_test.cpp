// Start-up seen from outside: the real binary in a scratch directory, its texts, exit
// status, files, signals; and the configuration values start-up derives, read from a
// forked child that ran start-up in-process.
#include <gtest/gtest.h>

#include <cstring>
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

// Runs the engine until start-up has finished, lets it run `seconds` more, then ends it with
// `sig` the way a user would. Waiting for the ready line rather than a fixed time keeps the test
// right on a loaded machine and in the sanitizer builds.
kst::ChildResult runUntilUp(const Scratch& s, const std::string& cfg, double seconds, int sig) {
    kst::ChildResult r;
    std::string outPath = s.dir + "/.child_stdout";
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(s.dir.c_str()) != 0) _exit(127);
        int fd = open(outPath.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        execl(kBinary.c_str(), kBinary.c_str(), cfg.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    bool up = kst::waitFor(
        [&] { return kst::readFile(outPath).find("Initalization of KsTest is completed") != std::string::npos; }, 120);
    int status = 0;
    if (up && waitpid(pid, &status, WNOHANG) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(int(seconds * 1000)));
        r.timedOut = true;
        kill(pid, sig);
        if (!kst::waitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 30)) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
    } else {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (WIFEXITED(status)) r.exitStatus = WEXITSTATUS(status);
    r.out = kst::readFile(outPath);
    return r;
}

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
        auto r = kst::runChild({kBinary, s.writeConfig(c.cfg)}, s.dir, 60);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_NE(r.out.find(c.text), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("Initalization of KsTest is completed"), std::string::npos);
    }
}

TEST(Startup, MissingArgumentAndMissingFile) {
    Scratch s;
    auto noArg = kst::runChild({kBinary}, s.dir, 60);
    EXPECT_EQ(noArg.exitStatus, 0);
    EXPECT_NE(noArg.out.find("please provide configuration file with full path., syntax: "), std::string::npos);
    EXPECT_NE(noArg.out.find(" ./config.json"), std::string::npos);

    auto missing = kst::runChild({kBinary, s.dir + "/nope.json"}, s.dir, 60);
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
        auto r = runUntilUp(s, s.writeConfig(config(c.extra)), 0.5, c.sig);
        EXPECT_TRUE(r.timedOut) << "the engine runs until a signal ends it";
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        EXPECT_NE(r.out.find("Initalization of KsTest is completed"), std::string::npos) << r.out;
        std::string line = "Received signal=" + std::to_string(c.sig) + " exiting";
        for (const char* ch : {"stk", "per", "app", "cmn"})
            EXPECT_NE(kst::readLogDir(s.dir + "/logs/" + ch).find(line), std::string::npos) << ch;
        struct stat st;
        ASSERT_EQ(stat((s.dir + "/data").c_str(), &st), 0) << "a missing data/ is created";
        EXPECT_EQ(st.st_mode & 0777, 0700u);
    }
}

TEST(Startup, MakesItsDirectoriesAndLoadsBrokenListsAsEmpty) {
    Scratch s;
    mkdir((s.dir + "/data").c_str(), 0755);
    kst::writeFile(s.dir + "/data/tst.json", "[ {\"ID\": 1, ");
    kst::writeFile(s.dir + "/data/set.json", "[]");
    auto r = runUntilUp(s, s.writeConfig(config()), 0.5, SIGTERM);
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
        auto r = runUntilUp(s, s.writeConfig(config(c.extra)), 2.5, SIGTERM);  // the pruning pass runs each second
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

// Runs start-up in a forked child (this process never starts the engine itself) in the
// scratch directory and hands back, through a pipe, what `collect` reads from the started
// engine; a default T when start-up stops.
template <class T, class F>
T startedInChild(const Scratch& s, const std::string& cfgPath, F collect) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        if (chdir(s.dir.c_str()) != 0) _exit(2);
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        char* argv[] = {const_cast<char*>("kestrane"), const_cast<char*>(cfgPath.c_str()), nullptr};
        T value{};
        if (KsEngine__Startup(2, argv) == 1) value = collect();
        if (write(fds[1], &value, sizeof value) != sizeof value) _exit(3);
        _exit(0);
    }
    close(fds[1]);
    T value{};
    EXPECT_EQ(read(fds[0], &value, sizeof value), ssize_t(sizeof value));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return value;
}

Derived startInChild(const std::string& cfgText) {
    Scratch s;
    return startedInChild<Derived>(s, s.writeConfig(cfgText), [] {
        return Derived{__ksEngine->DefaultTimeoutSeconds, uint32_t(__mv_log_get_level(MV_APP_LOG)),
                       uint32_t(__mv_log_get_level(MV_STK_LOG)), uint32_t(__mv_log_get_level(MV_CMN_LOG)),
                       __ksEngine->UECPort, __ksEngine->localIPCount, __ksEngine->UEFileCount};
    });
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

// The NGAP id table: ids from its base, one object per id, a freed id refused.
struct IdTable {
    uint32_t total = 0, first = 0, second = 0;
    bool foundFirst = false, refusedAfterFree = false;
};

TEST(StartupValues, NgapIdTableHoldsOneRowPerRanUeId) {
    Scratch s;
    IdTable t = startedInChild<IdTable>(s, s.writeConfig(config("\"MaxRANUEID\": 64")), [] {
        IdTable r;
        MV_IndexTable* idp = __ksEngine->gIdp;
        if (!idp) return r;
        uint32_t available = 0;
        uint64_t used = 0;
        __mv_IndexTable_get_pool_availability(idp, &r.total, &available, &used);
        int a = 1, b = 2;
        r.first = __mv_IndexTable_allocateRowId(idp, &a);
        r.second = __mv_IndexTable_allocateRowId(idp, &b);
        r.foundFirst = __mv_IndexTable_FindObject1(idp, r.first) == &a;
        __mv_IndexTable_FreeRow(idp, r.first);
        r.refusedAfterFree = __mv_IndexTable_FindObject1(idp, r.first) == nullptr;
        return r;
    });
    EXPECT_EQ(t.total, 64u);
    EXPECT_GE(t.first, 1502u);
    EXPECT_NE(t.first, t.second);
    EXPECT_TRUE(t.foundFirst);
    EXPECT_TRUE(t.refusedAfterFree);
}

// ---------------------------------------------------------------- a million UEs

struct Million {
    int32_t configured = -1;
    uint32_t found = 0, wrong = 0;
};

TEST(StartupScale, AMillionConfiguredUEsStartAndEachIsFoundByItsIMSI) {
#ifdef KS_SANITIZED
    GTEST_SKIP() << "a scale test: about 10 GB of UE records, run in the plain build";
#endif
    constexpr uint64_t kFirst = 1010000000001ull, kCount = 1000000;  // 001010000000001 .. 001010001000000
    Scratch s;
    mkdir((s.dir + "/data").c_str(), 0700);
    kst::writeFile(s.dir + "/data/uel.json",
                   R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010001000000", "MCC": "001", "MNC": "01", "MSISDNBegin": "9100000000"}])");
    std::string path = s.writeConfig(R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 1000000, "IMSIPrefixWithZERO": 1})");
    Million m = startedInChild<Million>(s, path, [&] {
        Million r;
        r.configured = __ksEngine->ksUETotal;
        for (uint64_t i = 0; i < kCount; i++) {
            char imsi[24];
            snprintf(imsi, sizeof imsi, "%015llu", (unsigned long long)(kFirst + i));
            MV_KsUE* ue = nullptr;
            KsEngine__FindUEByIMSI(&ue, imsi);
            if (!ue) continue;
            ++r.found;
            if (ue->l_imsi != kFirst + i || strcmp(KsUE__supi(ue) + 5, imsi) != 0 || ue->ueId != i) ++r.wrong;
        }
        return r;
    });
    EXPECT_EQ(m.configured, int32_t(kCount));
    EXPECT_EQ(m.found, kCount);
    EXPECT_EQ(m.wrong, 0u) << "each IMSI finds its own record";
}

}  // namespace
