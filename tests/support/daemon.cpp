#include "daemon.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

namespace testsupport {
namespace {

constexpr int kReadyMilliseconds = 10000;
constexpr int kStopMilliseconds = 5000;

// Waits for the child to end within milliseconds; its status, or -1.
int reap(pid_t pid, int milliseconds) {
    int status = 0;
    for (int waited = 0; waited <= milliseconds; waited += 10) {
        if (waitpid(pid, &status, WNOHANG) == pid) return status;
        usleep(10 * 1000);
    }
    return -1;
}

} // namespace

int freePort() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(s, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(s, reinterpret_cast<sockaddr *>(&address), &length);
    close(s);
    return ntohs(address.sin_port);
}

void writeMachineSettings(const std::string &home, int commsPort, const std::string &more) {
    mkdir((home + "/config").c_str(), 0755);
    std::ofstream(home + "/config/configure.cfg") << "[Machine]\nComms TcpPort=" << commsPort << "\n" << more;
}

Daemon::Daemon(const std::string &home, const std::string &program, const std::vector<std::string> &args) {
    int pipe[2];
    if (::pipe(pipe) != 0) return;
    const std::string path = std::string(FHCORE_BIN_DIR) + "/" + program;
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127); // the test is gone already
        dup2(pipe[1], STDOUT_FILENO);
        close(pipe[0]);
        close(pipe[1]);
        setenv("FHHOME", home.c_str(), 1);
        std::vector<char *> argv{const_cast<char *>(path.c_str())};
        for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(pipe[1]);
    output_ = pipe[0];
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kReadyMilliseconds);
    std::string line;
    while (ready_.empty() && std::chrono::steady_clock::now() < until) {
        pollfd one{output_, POLLIN, 0};
        if (poll(&one, 1, 100) <= 0) continue;
        char c = 0;
        if (read(output_, &c, 1) != 1) break;
        if (c == '\n')
            ready_ = line;
        else
            line += c;
    }
}

Daemon::~Daemon() {
    if (pid_ > 0) {
        EXPECT_TRUE(stop()) << "the daemon did not end cleanly";
    }
    if (output_ != -1) close(output_);
}

bool Daemon::stop() {
    if (pid_ <= 0) return false;
    ::kill(pid_, SIGTERM);
    int status = reap(pid_, kStopMilliseconds);
    const bool clean = status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (status == -1) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return clean;
}

void Daemon::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
}

} // namespace testsupport
