// daemon.h - starting our daemons from a test.
//
// A Daemon runs one program of the build with FHHOME set to the test's home,
// into whose "config/configure.cfg" the launcher has written ports that
// were free when the test ran. It waits, with a bound, for the one line the
// program prints when it is ready, and the program dies with the test
// (PR_SET_PDEATHSIG). stop() sends SIGTERM, waits a bounded time, then
// SIGKILL, and reaps; the daemon must have ended by itself with status 0,
// so a crash or a non-zero exit fails the test.
#ifndef FHCORE_TESTS_SUPPORT_DAEMON_H
#define FHCORE_TESTS_SUPPORT_DAEMON_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace testsupport {

// A TCP port on 127.0.0.1 that was free a moment ago.
int freePort();

// Writes the settings of a machine under home: the comms port, and any
// further stanza text.
void writeMachineSettings(const std::string &home, int commsPort, const std::string &more = "");

class Daemon {
public:
    // Starts program (a name under the build's bin directory) with args.
    Daemon(const std::string &home, const std::string &program, const std::vector<std::string> &args);
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    // The ready line, or "" when none came within the bound.
    const std::string &readyLine() const { return ready_; }
    pid_t pid() const { return pid_; }
    // SIGTERM, a bounded wait, SIGKILL, reap: true when the daemon ended by
    // itself with status 0. Once only; the destructor calls it if needed.
    bool stop();
    // Ends it at once with SIGKILL and reaps it (a test of its loss).
    void kill();

private:
    pid_t pid_ = -1;
    int output_ = -1;
    std::string ready_;
};

} // namespace testsupport

#endif // FHCORE_TESTS_SUPPORT_DAEMON_H
