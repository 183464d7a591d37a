// helpers.h - small things several suites need: whole files as text, a
// string the library made taken over, a check run in a child process, and
// objects, deadlines and messages between processes on this machine.
#ifndef FHCORE_TESTS_HELPERS_H
#define FHCORE_TESTS_HELPERS_H

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <initializer_list>
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

inline void release(std::initializer_list<void *> objects) {
    for (void *o : objects) ObjReleaseInternal(&o);
}

template <typename T> T *newObject(uint32_t magic, const char *format) {
    return static_cast<T *>(ObjNewInternal(sizeof(T), magic, format, nullptr, nullptr));
}

// The address of process id on this machine.
inline MSG_ADDRESS *localAddress(int32_t id) {
    MSG_ADDRESS *a = nullptr;
    MsgCreateAddress(&a, SysLocalMachineName(), id);
    return a;
}

// A deadline that many milliseconds from now, for the call it is made in.
struct In {
    TIME_TIMEOUT until{};
    explicit In(int32_t milliseconds) {
        const TIME_OFFSET span{milliseconds / 1000, milliseconds % 1000};
        TimeSetTimeoutFromOffset(&until, &span);
    }
    operator const TIME_TIMEOUT *() const { return &until; }
};

// The next message of type (0: any) from process from (-1: anyone) within
// seconds, or null.
inline MSG_MESSAGE *nextMessage(int32_t type, int32_t from = -1, int seconds = 10) {
    const In until(seconds * 1000);
    MSG_ADDRESS *source = from != -1 ? localAddress(from) : nullptr;
    MSG_MESSAGE *m = nullptr;
    while (!MsgReceiveMsgTypeFromAddress(&m, type, source, until) && !TimeTimeoutHasExpired(&until.until)) {
    }
    ObjReleaseInternal(&source);
    return m;
}

// Whether a message of type came from process from within seconds.
inline bool heard(int32_t type, int32_t from, int seconds = 10) {
    MSG_MESSAGE *m = nextMessage(type, from, seconds);
    const bool came = m != nullptr;
    return ObjReleaseInternal(&m), came;
}

inline bool sendTo(int32_t id, int32_t type, const void *body) {
    MSG_ADDRESS *to = localAddress(id);
    const bool sent = to != nullptr && MsgSendObject(to, type, body);
    return ObjReleaseInternal(&to), sent;
}

// A one-byte signal from one process to another across a fork: one side
// opens the gate, the other passes it once it is open (within milliseconds,
// -1 for no limit).
struct Gate {
    int fd[2] = {-1, -1};
    Gate() { EXPECT_EQ(pipe(fd), 0); }
    ~Gate() { close(fd[0]), close(fd[1]); }
    Gate(const Gate &) = delete;
    bool open() const { return write(fd[1], "g", 1) == 1; }
    bool pass(int milliseconds = -1) const {
        pollfd entry{fd[0], POLLIN, 0};
        char byte = 0;
        return poll(&entry, 1, milliseconds) == 1 && read(fd[0], &byte, 1) == 1;
    }
};

// Drops this thread's channels and starts it afresh.
inline void resetMessaging() {
    MsgReleaseThread(&gtLmContext);
    MsgInitializeThread();
}

} // namespace testhelp

#endif // FHCORE_TESTS_HELPERS_H
