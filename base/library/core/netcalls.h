// netcalls.h - the socket calls of the network layer, through one table.
//
// The network modules call the platform through fh::netCalls(), never
// directly, so that a test can make any call fail with the error it wants
// (or be interrupted) and check how the operation classifies it, and can
// count and answer the name services and interface requests, whose real
// answers depend on the machine (a reverse look-up may wait for a resolver's
// timeout). Only tests switch entries; the table starts as the platform's
// own calls.
#ifndef FHCORE_NETCALLS_H
#define FHCORE_NETCALLS_H

#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>


namespace fh {

struct NetCalls {
    int (*socket)(int domain, int type, int protocol);
    int (*close)(int fd);
    int (*bind)(int fd, const sockaddr *address, socklen_t length);
    int (*listen)(int fd, int backlog);
    int (*accept)(int fd, sockaddr *address, socklen_t *length, int flags); // accept4
    int (*connect)(int fd, const sockaddr *address, socklen_t length);
    ssize_t (*send)(int fd, const void *buffer, size_t length, int flags);
    ssize_t (*recv)(int fd, void *buffer, size_t length, int flags);
    ssize_t (*sendto)(int fd, const void *buffer, size_t length, int flags, const sockaddr *to, socklen_t toLength);
    ssize_t (*recvfrom)(int fd, void *buffer, size_t length, int flags, sockaddr *from, socklen_t *fromLength);
    int (*getsockopt)(int fd, int level, int name, void *value, socklen_t *length);
    int (*setsockopt)(int fd, int level, int name, const void *value, socklen_t length);
    int (*getsockname)(int fd, sockaddr *address, socklen_t *length);
    int (*getpeername)(int fd, sockaddr *address, socklen_t *length);
    int (*fcntl)(int fd, int command, int argument); // F_GETFL, F_SETFL
    int (*select)(int nfds, fd_set *read, fd_set *write, fd_set *exception, timeval *limit);
    int (*poll)(pollfd *fds, nfds_t count, int milliseconds);
    // Name services and interfaces (nethost.cpp).
    hostent *(*gethostbyname)(const char *name);
    hostent *(*gethostbyaddr)(const void *address, socklen_t length, int family);
    servent *(*getservbyname)(const char *name, const char *protocol);
    int (*gethostname)(char *buffer, size_t size);
    int (*ioctl)(int fd, unsigned long request, void *argument);
};

// Calls call until a signal no longer interrupts it.
template <typename Call> int repeated(Call call) {
    int result;
    do result = call();
    while (result == -1 && errno == EINTR);
    return result;
}

// The table in use; tests change entries and put them back.
NetCalls &netCalls();
// The platform's own calls.
const NetCalls &netPlatformCalls();

// The part of the network layer in nethost.cpp: its types and the
// process-wide list of addresses that don't resolve, made once by
// NetInitialize.
bool netHostInitialize();

} // namespace fh

#endif // FHCORE_NETCALLS_H
