// The real engine as a child process in a scratch directory, with its console on a
// loopback address of its own (127.a.b.c), so that engines of tests running at the
// same time never share a port.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "ks_test_util.h"

namespace kst {

class EngineChild {
public:
    // `files` go under data/; `config` members are added to the configuration.
    EngineChild(const std::string& binary, std::map<std::string, std::string> files, const std::string& config = "",
                bool withConsole = true)
        : host(uniqueLoopback()) {
        dir = makeTempDir("uec");
        mkdir((dir + "/data").c_str(), 0700);
        for (const auto& [name, text] : files) {
            // A name with folders ("../resources/templates/x.json") gets them made first.
            std::string path = dir + "/data/" + name;
            for (size_t p = path.find('/', dir.size() + 6); p != std::string::npos; p = path.find('/', p + 1))
                mkdir(path.substr(0, p).c_str(), 0700);
            writeFile(path, text);
        }
        std::string cfg = R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 5000, "IMSIPrefixWithZERO": 1)";
        if (withConsole) cfg += R"(, "LocalAddress": {"IPVersion": 4, "IP": [")" + host + R"("]}, "CLIPort": )" + std::to_string(port);
        if (!config.empty()) cfg += ", " + config;
        writeFile(dir + "/cfg.json", cfg + "}");
        pid = fork();
        if (pid == 0) {
            if (chdir(dir.c_str()) != 0) _exit(127);
            int fd = open((dir + "/stdout.txt").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            execl(binary.c_str(), binary.c_str(), (dir + "/cfg.json").c_str(), (char*)nullptr);
            _exit(127);
        }
    }
    EngineChild(const EngineChild&) = delete;
    ~EngineChild() {
        stop(SIGKILL);
        removeTree(dir);
    }

    // True once the console accepts connections.
    bool waitForConsole(double seconds = 20) {
        return waitFor(
            [this] {
                int fd = socket(AF_INET, SOCK_STREAM, 0);
                sockaddr_in a{};
                a.sin_family = AF_INET;
                a.sin_port = htons(uint16_t(port));
                inet_pton(AF_INET, host.c_str(), &a.sin_addr);
                bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
                close(fd);
                return ok || !running();
            },
            seconds) &&
               running();
    }

    bool running() {
        if (pid <= 0) return false;
        int status = 0;
        pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid) {
            exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            pid = -1;
            return false;
        }
        return true;
    }

    // Ends the engine; returns its exit status (-1 for a signal).
    int stop(int sig = SIGTERM) {
        if (pid > 0) {
            kill(pid, sig);
            int status = 0;
            waitpid(pid, &status, 0);
            exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            pid = -1;
        }
        return exitStatus;
    }

    // Waits for the engine to end by itself.
    bool waitForExit(double seconds) { return waitFor([this] { return !running(); }, seconds); }

    std::string out() const { return readFile(dir + "/stdout.txt"); }
    std::string log(const char* channel) const { return readLogDir(dir + "/logs/" + channel); }

    std::string dir;
    std::string host;
    int port = 9119;
    pid_t pid = -1;
    int exitStatus = -1;
};

}  // namespace kst
