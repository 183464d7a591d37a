// helpers.h - small things several suites need: whole files as text, a
// string the library made taken over, and a check run in a child process.
#ifndef FHCORE_TESTS_HELPERS_H
#define FHCORE_TESTS_HELPERS_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "fixture.h"

namespace testhelp {

inline std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeFile(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// A string the library made, freed; its text, or "<null>" for none.
inline std::string taken(char *text) {
    std::string copy = text != nullptr ? text : "<null>";
    MemFreeInternal(&text);
    return copy;
}

// Runs body in a child and gives its exit code (body's result), or -1 if it
// did not exit within 10 seconds.
template <typename Body> int inChild(Body body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(static_cast<int>(body()));
    int status = 0;
    for (int waited = 0; waitpid(pid, &status, WNOHANG) == 0; ++waited) {
        if (waited == 1000) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(10 * 1000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace testhelp

#endif // FHCORE_TESTS_HELPERS_H
