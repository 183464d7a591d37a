// net.cpp - sockets, addresses and select masks over the platform's IPv4
// sockets.
//
// Every platform call goes through the table of netcalls.h. The module keeps
// no state of its own beyond the NET_ADDRESS template: a socket belongs to
// whoever holds it. Names, interfaces, firewall binding and the hand-over of
// sockets are in nethost.cpp.
//
// Addresses. A NetAddressT is the platform's IPv4 address with a length byte
// at offset 0 and the family byte at offset 1. Toward the platform
// (toPlatform) the first 16 bytes are copied and the family is widened over
// the first two; from the platform (AddressRoom) 32 bytes of room are
// offered, and the low byte of the platform's family moves to offset 1 under
// the length 16. Nothing else of a caller's address is written.
//
// Results. A failed call is classified by its errno through a table of
// Outcomes (what is not in the table is NET_ERROR_FATAL): one table per
// column of the one-shot transfers, one for accept and one for connect. The
// blocking transfers classify with the one-shot table of their kind and only
// add what they do about the result: wait for the socket on would-block,
// go on after a signal, and trace the end of the connection. A failure is
// traced with the error number as the record's code and errno left as the
// call set it.
//
// Masks. A select mask is a plain block from the module's pool: three
// fd_sets and nfds, which only rises. The three sets are described once
// (kSets) and every mask operation takes one of them.
#include "core/net.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "core/config.h"
#include "core/context.h"
#include "core/memory.h"
#include "core/timeout.h"
#include "codec.h"
#include "netcalls.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"NET        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdOpenArguments = 1,
    kIdCreateUdp = 2,
    kIdCreateTcp = 3,
    kIdBroadcast = 4,
    kIdTtl = 5,
    kIdClose = 6,
    kIdCloseExit = 7,
    kIdBind = 8,
    kIdGetFlags = 9,
    kIdSetFlags = 10,
    kIdListen = 11,
    kIdLocalAddress = 12,
    kIdRemoteAddress = 13,
    kIdGetReuse = 14,
    kIdSetReuse = 15,
    kIdKeepAlive = 16,
    kIdNoLinger = 17,
    kIdSetSendBuffer = 18,
    kIdGetSendBuffer = 19,
    kIdSetReceiveBuffer = 20,
    kIdGetReceiveBuffer = 21,
    kIdSocketError = 22,
    kIdUdpSendFatal = 23,
    kIdTcpSendFatal = 24,
    kIdUdpReceiveFatal = 25,
    kIdTcpReceiveFatal = 26,
    kIdConnectionDown = 27,
    kIdConnectionRefused = 28,
    kIdClosedUnexpectedly = 29,
    kIdInvalidSocket = 30,
    kIdInvalidLength = 31,
    kIdTcpSendWaitFatal = 32,
    kIdTcpReceiveWaitFatal = 33,
    kIdAcceptInvalid = 34,
    kIdAcceptFatal = 35,
    kIdAcceptArguments = 36,
    kIdConnectEntry = 37,
    kIdConnectNull = 38,
    kIdConnectAddressSize = 39,
    kIdConnectPlatformSize = 40,
    kIdConnectFatal = 41,
    kIdConnectExit = 42,
    kIdBindArguments = 43,
    kIdWaitNoTimeout = 50,
    kIdWaitMilliseconds = 51,
    kIdPoll = 52,
    kIdSelectFatal = 53,
    kIdCheckSelect = 54,
    kIdReadReady = 55,
    kIdWriteReady = 56,
    kIdExceptionReady = 57,
    kIdReadNotReady = 58,
    kIdWriteNotReady = 59,
    kIdExceptionNotReady = 60,
    kIdReadFatal = 61,
    kIdWriteFatal = 62,
    kIdExceptionFatal = 63,
    kIdMaskTooLarge = 64,
};

MemPool *gPool = nullptr;
constinit fh::ObjectType<NetAddressT> gAddressType{NET_ADDRESS_MAGIC, NET_ADDRESS_FORMAT, fh::kReceivable};

MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

static_assert(sizeof(NetAddressT) == NET_ADDRESS_SIZE, "an address is 32 bytes");
static_assert(sizeof(sockaddr_in) == NET_ADDRESS_LENGTH, "the platform's IPv4 address fills the first 16 bytes");

int acceptCall(int fd, sockaddr *address, socklen_t *length, int flags) { return accept4(fd, address, length, flags); }
int fcntlCall(int fd, int command, int argument) { return fcntl(fd, command, argument); }
int ioctlCall(int fd, unsigned long request, void *argument) { return ioctl(fd, request, argument); }

constexpr fh::NetCalls kPlatform = {
    ::socket,        ::close,         ::bind,          ::listen,        acceptCall, ::connect, ::send,
    ::recv,          ::sendto,        ::recvfrom,      ::getsockopt,    ::setsockopt,
    ::getsockname,   ::getpeername,   fcntlCall,       ::select,        ::poll,     ::gethostbyname,
    ::gethostbyaddr, ::getservbyname, ::gethostname,   ioctlCall,
};
fh::NetCalls gCalls = kPlatform;

fh::NetCalls &calls() { return gCalls; }

using fh::repeated;

// Traces a failed platform call: error as the record's code, its text as the
// format's last argument; errno is put back as the call left it.
template <typename... Args> void traceError(int32_t id, int32_t level, int error, const char *format, Args... args) {
    trace(id, error, level, format, args..., strerror(error));
    errno = error;
}

void closeQuietly(int fd) {
    const int error = errno;
    calls().close(fd);
    errno = error;
}

// ---- Addresses ----

// An address as the platform takes it: the first 16 bytes, the family byte
// widened to the platform's 16-bit family.
sockaddr_in toPlatform(const NetAddressT *address) {
    sockaddr_in platform;
    memcpy(&platform, address->aBytes, sizeof platform);
    platform.sin_family = address->aBytes[1];
    return platform;
}

inline const sockaddr *asSockaddr(const sockaddr_in &platform) { return reinterpret_cast<const sockaddr *>(&platform); }

// Room for an address that the platform fills in: 32 bytes.
struct AddressRoom {
    alignas(sockaddr_in) unsigned char bytes[NET_ADDRESS_SIZE] = {};
    socklen_t length = NET_ADDRESS_SIZE;

    sockaddr *platform() { return reinterpret_cast<sockaddr *>(bytes); }

    // What the platform wrote, in this layer's layout.
    void storeInto(NetAddressT *address) const {
        memcpy(address->aBytes, bytes, std::min<size_t>(length, NET_ADDRESS_SIZE));
        address->aBytes[1] = bytes[0]; // the low byte of the platform's family
        address->aBytes[0] = NET_ADDRESS_LENGTH;
    }
};

// getsockname or getpeername into *address.
BOOL socketAddress(NetAddressT *address, int32_t socket, int (*call)(int, sockaddr *, socklen_t *), int32_t id,
                   const char *failure) {
    if (address == nullptr || socket == -1) return FALSE;
    AddressRoom room;
    if (call(socket, room.platform(), &room.length) != 0) {
        traceError(id, 2, errno, failure);
        return FALSE;
    }
    room.storeInto(address);
    return TRUE;
}

// ---- Options ----

struct Option {
    int level;
    int name;
    int32_t id;
    int32_t traceLevel;
    const char *failure; // null: a failure is not traced
};

constexpr Option kBroadcast{SOL_SOCKET, SO_BROADCAST, kIdBroadcast, -1, "Failed to set BROADCAST value: %s"};
constexpr Option kTtl{IPPROTO_IP, IP_TTL, kIdTtl, -1, "Failed to set TTL value: %s"};
constexpr Option kSetReuse{SOL_SOCKET, SO_REUSEADDR, kIdSetReuse, 2, "Failed to set reuse address on : %s"};
constexpr Option kGetReuse{SOL_SOCKET, SO_REUSEADDR, kIdGetReuse, 2, "Failed to get reuse address on : %s"};
constexpr Option kKeepAlive{SOL_SOCKET, SO_KEEPALIVE, kIdKeepAlive, 2, "Failed to set keepalive on : %s"};
constexpr Option kNoLinger{SOL_SOCKET, SO_LINGER, kIdNoLinger, 2, "Failed to set no linger : %s"};
constexpr Option kSetSendBuffer{SOL_SOCKET, SO_SNDBUF, kIdSetSendBuffer, 2, "Failed to set send buffer size: %s"};
constexpr Option kGetSendBuffer{SOL_SOCKET, SO_SNDBUF, kIdGetSendBuffer, 2, "Failed to get send buffer size: %s"};
constexpr Option kSetReceiveBuffer{SOL_SOCKET, SO_RCVBUF, kIdSetReceiveBuffer, 2,
                                   "Failed to set receive buffer size: %s"};
constexpr Option kGetReceiveBuffer{SOL_SOCKET, SO_RCVBUF, kIdGetReceiveBuffer, 2,
                                   "Failed to get receive buffer size: %s"};
constexpr Option kSocketError{SOL_SOCKET, SO_ERROR, 0, 0, nullptr};

BOOL setOption(int32_t socket, const Option &option, const void *value, socklen_t size) {
    if (socket == -1) return FALSE;
    if (calls().setsockopt(socket, option.level, option.name, value, size) == 0) return TRUE;
    traceError(option.id, option.traceLevel, errno, option.failure);
    return FALSE;
}

BOOL setInteger(int32_t socket, const Option &option, int value) {
    return setOption(socket, option, &value, sizeof value);
}

BOOL getInteger(int *out, int32_t socket, const Option &option) {
    if (out == nullptr || socket == -1) return FALSE;
    int value = 0;
    socklen_t size = sizeof value;
    if (calls().getsockopt(socket, option.level, option.name, &value, &size) != 0) {
        if (option.failure != nullptr) traceError(option.id, option.traceLevel, errno, option.failure);
        return FALSE;
    }
    *out = value;
    return TRUE;
}

// O_NONBLOCK on or off; each fcntl repeated while a signal interrupts it.
BOOL setNonBlocking(int32_t socket, bool on) {
    if (socket == -1) return FALSE;
    const int flags = repeated([&] { return calls().fcntl(socket, F_GETFL, 0); });
    if (flags == -1) {
        traceError(kIdGetFlags, 2, errno, "Failed to get socket flags: %s");
        return FALSE;
    }
    const int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (repeated([&] { return calls().fcntl(socket, F_SETFL, wanted); }) == -1) {
        traceError(kIdSetFlags, 2, errno, "Failed to set socket flags: %s");
        return FALSE;
    }
    return TRUE;
}

// A datagram socket broadcasts, and takes its time to live from the
// settings when one is given.
bool setDatagramOptions(int fd) {
    int32_t ttl = 0;
    CfgGetInteger(&ttl, "lmnmgr.cfg", "Network", "TTL", 0);
    return setInteger(fd, kBroadcast, 1) && (ttl <= 0 || setInteger(fd, kTtl, ttl));
}

// ---- Results of failed calls ----

struct Outcome {
    int error;
    int32_t result;
};

// The result of a failure with error; NET_ERROR_FATAL if the table hasn't it.
int32_t classify(std::span<const Outcome> outcomes, int error) {
    for (const Outcome &o : outcomes)
        if (o.error == error) return o.result;
    return NET_ERROR_FATAL;
}

// One column each of the one-shot transfers. Not symmetric: ENOMEM would
// block only a stream send, EPIPE breaks all but a datagram send, ENOTCONN
// means something only to a stream send and ECONNREFUSED only to a stream
// receive.
constexpr Outcome kUdpSendOutcomes[] = {{EAGAIN, NET_ERROR_WOULD_BLOCK}, {EINTR, NET_ERROR_INTERRUPTED}};
constexpr Outcome kTcpSendOutcomes[] = {{EAGAIN, NET_ERROR_WOULD_BLOCK},
                                        {ENOMEM, NET_ERROR_WOULD_BLOCK},
                                        {EINTR, NET_ERROR_INTERRUPTED},
                                        {EPIPE, NET_ERROR_DOWN},
                                        {ENOTCONN, NET_ERROR_NOT_CONNECTED}};
constexpr Outcome kUdpReceiveOutcomes[] = {
    {EAGAIN, NET_ERROR_WOULD_BLOCK}, {EINTR, NET_ERROR_INTERRUPTED}, {EPIPE, NET_ERROR_DOWN}};
constexpr Outcome kTcpReceiveOutcomes[] = {{EAGAIN, NET_ERROR_WOULD_BLOCK},
                                           {EINTR, NET_ERROR_INTERRUPTED},
                                           {EPIPE, NET_ERROR_DOWN},
                                           {ECONNREFUSED, NET_ERROR_REFUSED}};

constexpr Outcome kAcceptOutcomes[] = {{EAGAIN, NET_ERROR_WOULD_BLOCK},
                                       {ECONNABORTED, NET_ERROR_ACCEPT_FAILED},
                                       {ENOSR, NET_ERROR_ACCEPT_FAILED},
                                       {ENOBUFS, NET_ERROR_ACCEPT_FAILED},
                                       {ENOMEM, NET_ERROR_ACCEPT_FAILED}};

constexpr Outcome kConnectOutcomes[] = {{EINPROGRESS, NET_ERROR_WOULD_BLOCK}, {EAGAIN, NET_ERROR_WOULD_BLOCK},
                                        {EINTR, NET_ERROR_INTERRUPTED},       {ETIMEDOUT, NET_ERROR_TIMEOUT},
                                        {ECONNREFUSED, NET_ERROR_REFUSED},    {ENETUNREACH, NET_ERROR_UNREACHABLE},
                                        {EPROTO, NET_ERROR_PROTOCOL}};

// ---- Transfers ----

// One kind of transfer: its column of outcomes and the texts of its
// failures. The fatal texts take the error text and then its number, which
// all but the stream send leave out.
struct Transfer {
    std::span<const Outcome> outcomes;
    int32_t fatalId;
    const char *fatal;
    int32_t waitFatalId; // a failed wait of the blocking form
    const char *waitFatal;
    bool sends;
    bool wholeOnly; // a short count is a failure: a datagram goes whole or not at all
};

constexpr Transfer kUdpSend{
    kUdpSendOutcomes, kIdUdpSendFatal, "Fatal error during UDP send: %s", 0, nullptr, true, true};
constexpr Transfer kTcpSend{kTcpSendOutcomes,
                            kIdTcpSendFatal,
                            "Fatal error during TCP send: %s (%ld)",
                            kIdTcpSendWaitFatal,
                            "Fatal error during TCP send: %s",
                            true,
                            false};
constexpr Transfer kUdpReceive{
    kUdpReceiveOutcomes, kIdUdpReceiveFatal, "Fatal error during UDP receive: %s", 0, nullptr, false, false};
constexpr Transfer kTcpReceive{kTcpReceiveOutcomes,
                               kIdTcpReceiveFatal,
                               "Fatal error during TCP receive: %s",
                               kIdTcpReceiveWaitFatal,
                               "Fatal error during TCP receive: %s",
                               false,
                               false};

// Traces a failed transfer by its result. The one-shot forms name a broken
// connection only when receiving; the blocking forms always, and a refused
// one too.
void traceOutcome(const Transfer &transfer, int32_t result, int error, bool blocking) {
    switch (result) {
    case NET_ERROR_FATAL:
        trace(transfer.fatalId, error, -1, transfer.fatal, strerror(error), static_cast<long>(error));
        break;
    case NET_ERROR_DOWN:
        if (blocking || !transfer.sends) trace(kIdConnectionDown, error, 2, "Connection down");
        break;
    case NET_ERROR_NOT_CONNECTED:
    case NET_ERROR_REFUSED:
        if (blocking) trace(kIdConnectionRefused, error, 2, "Connection refused");
        break;
    default:
        break;
    }
    errno = error;
}

// One platform call (call gives its count or -1), classified; never
// repeated.
template <typename Call>
int32_t transferOnce(const Transfer &transfer, int32_t *count, int32_t socket, int32_t length, Call call) {
    if (socket == -1) return NET_ERROR_BAD_SOCKET;
    if (length < 1) return NET_ERROR_BAD_LENGTH;
    const ssize_t moved = call();
    if (moved > 0) {
        if (transfer.wholeOnly && moved != length) return NET_ERROR_FATAL;
        if (count != nullptr) *count = static_cast<int32_t>(moved);
        return NET_ERROR_NONE;
    }
    if (moved == 0) return NET_ERROR_CLOSED;
    const int error = errno;
    const int32_t result = classify(transfer.outcomes, error);
    traceOutcome(transfer, result, error, false);
    return result;
}

// Milliseconds left to the deadline for poll, -1 without one. A wait is cut
// to a day (and *cut says so), which keeps the count inside an int.
int pollLimit(const TIME_TIMEOUT *timeout, bool *cut) {
    if (TimeTimeoutIsNever(timeout)) return -1;
    timeval left{};
    TimeSetTimeval(&left, timeout);
    *cut = left.tv_sec >= NET_SELECT_LONGEST_WAIT;
    if (*cut) return NET_SELECT_LONGEST_WAIT * 1000;
    return static_cast<int>(left.tv_sec * 1000 + (left.tv_usec + 999) / 1000);
}

// Waits until socket can go on with the transfer or the deadline passes.
// Poll rather than select: a socket of any number can wait. NET_ERROR_NONE
// means try again.
int32_t waitForSocket(const Transfer &transfer, int32_t socket, const TIME_TIMEOUT *timeout, int32_t *waited,
                      BOOL *didWait) {
    bool cut = false;
    const int limit = pollLimit(timeout, &cut);
    if (didWait != nullptr) *didWait = 1;
    pollfd one{socket, static_cast<short>(transfer.sends ? POLLOUT : POLLIN), 0};
    const int64_t before = waited != nullptr ? TimeNowAsInt64() : 0;
    const int ready = calls().poll(&one, 1, limit);
    const int error = errno;
    if (waited != nullptr) // a 32-bit sum, as the callers keep it
        *waited =
            static_cast<int32_t>(static_cast<uint32_t>(*waited) + static_cast<uint32_t>(TimeNowAsInt64() - before));
    if (ready == -1 && error != EINTR) {
        traceError(transfer.waitFatalId, -1, error, transfer.waitFatal);
        return NET_ERROR_FATAL;
    }
    return ready == 0 && !cut ? NET_ERROR_TIMEOUT : NET_ERROR_NONE;
}

// The whole of length bytes through move(offset, remaining), which makes one
// platform call; the count moved goes to *count on every path but bad
// arguments to a receive.
template <typename Move>
int32_t transferAll(const Transfer &transfer, int32_t *count, int32_t socket, int32_t length,
                    const TIME_TIMEOUT *timeout, int32_t *waited, BOOL *didWait, Move move) {
    if (socket == -1 || length < 1) {
        if (socket == -1)
            trace(kIdInvalidSocket, 0, -1, "Invalid socket handle");
        else
            trace(kIdInvalidLength, length, -1, "Invalid buffer length");
        if (transfer.sends && count != nullptr) *count = 0;
        return socket == -1 ? NET_ERROR_BAD_SOCKET : NET_ERROR_BAD_LENGTH;
    }
    int32_t done = 0;
    int32_t result = NET_ERROR_NONE;
    while (done < length && result == NET_ERROR_NONE) {
        const ssize_t moved = move(done, length - done);
        if (moved > 0) {
            done += static_cast<int32_t>(moved);
        } else if (moved == 0) {
            trace(kIdClosedUnexpectedly, 0, 2, "Socket closed unexpectedly");
            result = NET_ERROR_CLOSED;
        } else if (const int error = errno; error != EINTR) {
            result = classify(transfer.outcomes, error);
            if (result == NET_ERROR_WOULD_BLOCK)
                result = waitForSocket(transfer, socket, timeout, waited, didWait);
            else
                traceOutcome(transfer, result, error, true);
        }
    }
    if (count != nullptr) *count = done;
    return result;
}

// ---- Connect ----

int32_t connectTo(int32_t socket, const NetAddressT *address) {
    if (socket == -1) return NET_ERROR_BAD_SOCKET;
    if (address == nullptr) {
        trace(kIdConnectNull, 0, -1, "NULL address passed to NetConnect");
        return NET_ERROR_FATAL;
    }
    trace(kIdConnectAddressSize, 0, 3, "NetAddressT is %ld bytes", static_cast<long>(sizeof(NetAddressT)));
    trace(kIdConnectPlatformSize, 0, 3, "sAddress is %ld bytes", static_cast<long>(sizeof(sockaddr_in)));
    const sockaddr_in platform = toPlatform(address);
    int error = 0;
    for (int attempt = 0; attempt < NET_CONNECT_ATTEMPTS; ++attempt) {
        if (calls().connect(socket, asSockaddr(platform), sizeof platform) == 0) return NET_ERROR_NONE;
        error = errno;
        if (error != EPROTO) break; // the only error that is tried again
    }
    const int32_t result = classify(kConnectOutcomes, error);
    if (result == NET_ERROR_FATAL) traceError(kIdConnectFatal, -1, error, "Fatal connect error: %s");
    errno = error;
    return result;
}

// ---- Select masks ----

// One of the three sets of a mask, and the texts of NetCheckSelect for it.
struct SelectSet {
    fd_set NetSelectMask::*set;
    const char *name;
    int32_t readyId;
    const char *ready;
    int32_t notReadyId;
    const char *notReady;
    int32_t fatalId;
    const char *fatal;
};
constexpr SelectSet kRead{&NetSelectMask::oRead, "read",
                          kIdReadReady,          "Socket %ld has read select set",
                          kIdReadNotReady,       "Socket %ld has read select not set",
                          kIdReadFatal,          "Fatal read select error on %ld: %s"};
constexpr SelectSet kWrite{&NetSelectMask::oWrite, "write",
                           kIdWriteReady,          "Socket %ld has write select set",
                           kIdWriteNotReady,       "Socket %ld has write select not set",
                           kIdWriteFatal,          "Fatal write select error on %ld: %s"};
constexpr SelectSet kException{&NetSelectMask::oException, "exception",
                               kIdExceptionReady,          "Socket %ld has exception select set",
                               kIdExceptionNotReady,       "Socket %ld has exception select not set",
                               kIdExceptionFatal,          "Fatal exception select error on %ld: %s"};
constexpr const SelectSet *kSets[] = {&kRead, &kWrite, &kException};

inline bool fits(int32_t socket) { return socket >= 0 && socket < FD_SETSIZE; }

BOOL addSelect(NetSelectMask *mask, int32_t socket, const SelectSet &set) {
    if (mask == nullptr || socket == -1) return FALSE;
    if (!fits(socket)) {
        trace(kIdMaskTooLarge, socket, -1, "Socket %ld does not fit into the %s select mask of %ld sockets",
              static_cast<long>(socket), set.name, static_cast<long>(FD_SETSIZE));
        return FALSE;
    }
    FD_SET(socket, &(mask->*set.set));
    mask->iNfds = std::max(mask->iNfds, socket + 1);
    return TRUE;
}

BOOL removeSelect(NetSelectMask *mask, int32_t socket, const SelectSet &set) {
    if (mask == nullptr || !fits(socket) || !FD_ISSET(socket, &(mask->*set.set))) return FALSE;
    FD_CLR(socket, &(mask->*set.set));
    return TRUE;
}

BOOL isSelectSet(const NetSelectMask *mask, int32_t socket, const SelectSet &set) {
    return mask != nullptr && fits(socket) && FD_ISSET(socket, &(mask->*set.set));
}

// select on the mask's own sets, which it overwrites; a null mask waits on
// no socket.
int32_t selectOn(int32_t *count, NetSelectMask *mask, timeval *limit) {
    const int ready = mask != nullptr
                          ? calls().select(mask->iNfds, &mask->oRead, &mask->oWrite, &mask->oException, limit)
                          : calls().select(0, nullptr, nullptr, nullptr, limit);
    if (ready > 0) {
        if (count != nullptr) *count = ready;
        return NET_ERROR_NONE;
    }
    if (ready == 0) return NET_ERROR_TIMEOUT;
    if (errno == EINTR) return NET_ERROR_INTERRUPTED;
    traceError(kIdSelectFatal, -1, errno, "Fatal network select error: %s");
    return NET_ERROR_FATAL;
}

// Whether socket is ready now in one set: the socket alone in that set,
// polled. Traced under the set's texts.
void checkOne(int32_t socket, size_t which) {
    const SelectSet &set = *kSets[which];
    fd_set one;
    FD_ZERO(&one);
    FD_SET(socket, &one);
    fd_set *sets[3] = {};
    sets[which] = &one;
    timeval now{0, 0};
    const int ready = calls().select(socket + 1, sets[0], sets[1], sets[2], &now);
    if (ready > 0)
        trace(set.readyId, 0, 0, set.ready, static_cast<long>(socket));
    else if (ready == 0)
        trace(set.notReadyId, 0, 0, set.notReady, static_cast<long>(socket));
    else if (errno != EINTR)
        traceError(set.fatalId, -1, errno, set.fatal, static_cast<long>(socket));
}

} // namespace

fh::NetCalls &fh::netCalls() { return gCalls; }
const fh::NetCalls &fh::netPlatformCalls() { return kPlatform; }

// ---- Opening and closing ----

BOOL NetOpen(int32_t *socket, int32_t kind) {
    if (socket == nullptr || (kind != NET_SOCKET_DATAGRAM && kind != NET_SOCKET_STREAM)) {
        return trace.fault(FALSE, kIdOpenArguments, kind, "NetOpen(%p, %ld) - bad arguments", static_cast<void *>(socket),
              static_cast<long>(kind));
    }
    const bool datagram = kind == NET_SOCKET_DATAGRAM;
    const int type = (datagram ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC;
    const int fd = repeated([&] { return calls().socket(AF_INET, type, 0); });
    if (fd == -1) {
        if (datagram)
            traceError(kIdCreateUdp, -1, errno, "Failed to create UDP socket: %s");
        else
            traceError(kIdCreateTcp, -1, errno, "Failed tp create TCP socket: %s");
        return FALSE;
    }
    if (datagram && !setDatagramOptions(fd)) {
        closeQuietly(fd); // the caller gets no handle, so none stays open
        return FALSE;
    }
    *socket = fd;
    return TRUE;
}

// On this platform a close that a signal interrupted has released the
// descriptor all the same, and repeating it could close a descriptor opened
// since: it counts as closed.
BOOL NetClose(int32_t *socket) {
    BOOL closed = FALSE;
    const long handle = socket != nullptr ? *socket : -1;
    if (handle != -1) {
        closed = calls().close(static_cast<int>(handle)) == 0 || errno == EINTR;
        if (!closed) traceError(kIdClose, -1, errno, "Failed to close socket: %s");
    }
    trace(kIdCloseExit, 0, 3, "%s = NetClose(%p) %ld", fh::boolText(closed), static_cast<void *>(socket), handle);
    if (closed) *socket = -1;
    return closed;
}

// ---- Addresses ----

BOOL NetInitializeIpAddress(NetAddressT *address, uint32_t ipHostOrder, int32_t portHostOrder) {
    if (address == nullptr) return FALSE;
    address->aBytes[0] = NET_ADDRESS_LENGTH;
    address->aBytes[1] = NET_FAMILY_IP;
    fh::writeBe16(address->aBytes + 2, static_cast<uint32_t>(portHostOrder));
    fh::writeBe32(address->aBytes + 4, ipHostOrder);
    return TRUE;
}

BOOL NetSetIpPort(NetAddressT *address, int32_t portHostOrder) {
    if (address == nullptr) return FALSE;
    fh::writeBe16(address->aBytes + 2, static_cast<uint32_t>(portHostOrder));
    return TRUE;
}

int32_t NetGetIpPort(const NetAddressT *address) { return address != nullptr ? fh::readBe16(address->aBytes + 2) : 0; }
uint32_t NetGetIpAddress(const NetAddressT *address) {
    return address != nullptr ? fh::readBe32(address->aBytes + 4) : 0;
}
int32_t NetGetFamily(const NetAddressT *address) { return address != nullptr ? address->aBytes[1] : 0; }
int32_t NetGetAddressLength(const NetAddressT *address) { return address != nullptr ? address->aBytes[0] : 0; }

BOOL NetAddressEqual(const NetAddressT *first, const NetAddressT *second, BOOL addressOnly) {
    if (first == nullptr || second == nullptr) return first == second;
    const unsigned char *a = first->aBytes, *b = second->aBytes;
    if (a[1] != NET_FAMILY_IP || b[1] != NET_FAMILY_IP || memcmp(a + 4, b + 4, 4) != 0) return FALSE;
    return addressOnly || memcmp(a + 2, b + 2, 2) == 0;
}

// ---- Binding, listening and the peer ----

BOOL NetBind(int32_t socket, const NetAddressT *address) {
    if (socket == -1) return FALSE;
    if (address == nullptr) {
        return trace.fault(FALSE, kIdBindArguments, 0, "NetBind(%ld, %p) - no address", static_cast<long>(socket),
              static_cast<const void *>(address));
    }
    const sockaddr_in platform = toPlatform(address);
    if (calls().bind(socket, asSockaddr(platform), sizeof platform) == 0) return TRUE;
    traceError(kIdBind, -1, errno, "Fatal error during address bind: %s");
    return FALSE;
}

BOOL NetListen(int32_t socket, int32_t backlog) {
    if (socket == -1) return FALSE;
    if (calls().listen(socket, backlog) == 0) return TRUE;
    traceError(kIdListen, 2, errno, "Failed to listen on socket: %s");
    return FALSE;
}

int32_t NetAccept(int32_t *newSocket, int32_t socket, NetAddressT *address) {
    if (socket == -1) {
        trace(kIdAcceptInvalid, 0, -1, "NetAccept called with invalid socket");
        return NET_ERROR_BAD_SOCKET;
    }
    if (newSocket == nullptr) {
        return trace.fault(NET_ERROR_FATAL, kIdAcceptArguments, 0, "NetAccept(%p, %ld, %p) - nowhere to put the socket",
              static_cast<void *>(newSocket), static_cast<long>(socket), static_cast<void *>(address));
    }
    AddressRoom room;
    const int fd = repeated([&] { return calls().accept(socket, room.platform(), &room.length, SOCK_CLOEXEC); });
    if (fd != -1) {
        *newSocket = fd;
        if (address != nullptr) room.storeInto(address);
        return NET_ERROR_NONE;
    }
    const int error = errno;
    const int32_t result = classify(kAcceptOutcomes, error);
    if (result != NET_ERROR_WOULD_BLOCK) traceError(kIdAcceptFatal, -1, error, "Fatal accept error: %s");
    return result;
}

int32_t NetConnect(int32_t socket, const NetAddressT *address) {
    trace(kIdConnectEntry, 0, 3, "NetConnect(%ld, %p)", static_cast<long>(socket), static_cast<const void *>(address));
    const int32_t result = connectTo(socket, address);
    trace(kIdConnectExit, result, 3, "%d = NetConnect(%ld, %p)", result, static_cast<long>(socket),
          static_cast<const void *>(address));
    return result;
}

BOOL NetGetLocalAddress(NetAddressT *address, int32_t socket) {
    return socketAddress(address, socket, calls().getsockname, kIdLocalAddress,
                         "Failed to get local address of socket: %s");
}

BOOL NetGetRemoteAddress(NetAddressT *address, int32_t socket) {
    return socketAddress(address, socket, calls().getpeername, kIdRemoteAddress,
                         "Failed to get remote address of socket: %s");
}

// ---- Transfers ----

int32_t NetUdpSend(int32_t socket, const void *buffer, int32_t length, const NetAddressT *address) {
    return transferOnce(kUdpSend, nullptr, socket, length, [&]() -> ssize_t {
        if (address == nullptr) return calls().sendto(socket, buffer, static_cast<size_t>(length), 0, nullptr, 0);
        const sockaddr_in platform = toPlatform(address);
        return calls().sendto(socket, buffer, static_cast<size_t>(length), 0, asSockaddr(platform), sizeof platform);
    });
}

int32_t NetUdpReceive(int32_t *received, int32_t socket, void *buffer, int32_t length, NetAddressT *address) {
    AddressRoom room;
    const int32_t result = transferOnce(kUdpReceive, received, socket, length, [&] {
        return calls().recvfrom(socket, buffer, static_cast<size_t>(length), 0,
                                address != nullptr ? room.platform() : nullptr,
                                address != nullptr ? &room.length : nullptr);
    });
    if (result == NET_ERROR_NONE && address != nullptr) room.storeInto(address);
    return result;
}

// Stream sends never raise SIGPIPE: a reset peer is a result, not the end of
// the process.
int32_t NetTcpSend(int32_t *sent, int32_t socket, const void *buffer, int32_t length) {
    return transferOnce(kTcpSend, sent, socket, length,
                        [&] { return calls().send(socket, buffer, static_cast<size_t>(length), MSG_NOSIGNAL); });
}

int32_t NetTcpReceive(int32_t *received, int32_t socket, void *buffer, int32_t length) {
    return transferOnce(kTcpReceive, received, socket, length,
                        [&] { return calls().recv(socket, buffer, static_cast<size_t>(length), 0); });
}

int32_t NetTcpSendBlocking(int32_t *sent, int32_t socket, const void *buffer, int32_t length,
                           const TIME_TIMEOUT *timeout, int32_t *waited, BOOL *didWait) {
    const auto *bytes = static_cast<const char *>(buffer);
    return transferAll(kTcpSend, sent, socket, length, timeout, waited, didWait, [&](int32_t offset, int32_t left) {
        return calls().send(socket, bytes + offset, static_cast<size_t>(left), MSG_NOSIGNAL);
    });
}

int32_t NetTcpReceiveBlocking(int32_t *received, int32_t socket, void *buffer, int32_t length,
                              const TIME_TIMEOUT *timeout, int32_t *waited, BOOL *didWait) {
    auto *bytes = static_cast<char *>(buffer);
    return transferAll(kTcpReceive, received, socket, length, timeout, waited, didWait,
                       [&](int32_t offset, int32_t left) {
                           return calls().recv(socket, bytes + offset, static_cast<size_t>(left), 0);
                       });
}

// ---- Options and state ----

BOOL NetSetNonBlocking(int32_t socket) { return setNonBlocking(socket, true); }
BOOL NetSetBlocking(int32_t socket) { return setNonBlocking(socket, false); }

BOOL NetSetReuseAddress(int32_t socket) { return setInteger(socket, kSetReuse, 1); }

BOOL NetGetReuseAddress(BOOL *flag, int32_t socket) {
    int value = 0;
    if (flag == nullptr || !getInteger(&value, socket, kGetReuse)) return FALSE;
    *flag = value != 0;
    return TRUE;
}

BOOL NetSetKeepAlive(int32_t socket) { return setInteger(socket, kKeepAlive, 1); }

BOOL NetSetNoLinger(int32_t socket) {
    const linger resetOnClose{1, 0};
    return setOption(socket, kNoLinger, &resetOnClose, sizeof resetOnClose);
}

BOOL NetSetSendBufferSize(int32_t socket, int32_t size) { return setInteger(socket, kSetSendBuffer, size); }
BOOL NetSetReceiveBufferSize(int32_t socket, int32_t size) { return setInteger(socket, kSetReceiveBuffer, size); }
BOOL NetGetSendBufferSize(int32_t *size, int32_t socket) { return getInteger(size, socket, kGetSendBuffer); }
BOOL NetGetReceiveBufferSize(int32_t *size, int32_t socket) { return getInteger(size, socket, kGetReceiveBuffer); }

BOOL NetSocketError(int32_t socket) {
    int pending = 0;
    if (!getInteger(&pending, socket, kSocketError) || pending == 0) return FALSE;
    trace(kIdSocketError, pending, 3, "SO_ERROR: %s", strerror(pending));
    return TRUE;
}

BOOL NetIsConnected(int32_t socket) {
    if (socket == -1 || NetSocketError(socket)) return FALSE;
    return calls().send(socket, "", 0, MSG_NOSIGNAL) == 0;
}

int32_t NetGetMaximumMessageSize(void) { return 0; }

BOOL NetTcpSetNoDelay(void) { return 0; }

// ---- Select masks ----

BOOL NetInitializeSelectMask(NetSelectMask **mask) {
    if (mask == nullptr) return FALSE;
    *mask = static_cast<NetSelectMask *>(MemAllocateFromPool(sizeof(NetSelectMask), pool()));
    return TRUE;
}

BOOL NetReleaseSelectMask(NetSelectMask **mask) { return mask != nullptr && MemFreeInternal(mask); }

BOOL NetDuplicateSelectMask(NetSelectMask **mask, const NetSelectMask *source) {
    return source != nullptr && NetInitializeSelectMask(mask) && NetCopySelectMask(*mask, source);
}

BOOL NetCopySelectMask(NetSelectMask *target, const NetSelectMask *source) {
    if (target == nullptr || source == nullptr) return FALSE;
    *target = *source;
    return TRUE;
}

BOOL NetAddReadSelect(NetSelectMask *mask, int32_t socket) { return addSelect(mask, socket, kRead); }
BOOL NetAddWriteSelect(NetSelectMask *mask, int32_t socket) { return addSelect(mask, socket, kWrite); }
BOOL NetAddExceptionSelect(NetSelectMask *mask, int32_t socket) { return addSelect(mask, socket, kException); }

BOOL NetRemoveReadSelect(NetSelectMask *mask, int32_t socket) { return removeSelect(mask, socket, kRead); }
BOOL NetRemoveWriteSelect(NetSelectMask *mask, int32_t socket) { return removeSelect(mask, socket, kWrite); }
BOOL NetRemoveExceptionSelect(NetSelectMask *mask, int32_t socket) { return removeSelect(mask, socket, kException); }

BOOL NetIsReadSelectSet(const NetSelectMask *mask, int32_t socket) { return isSelectSet(mask, socket, kRead); }
BOOL NetIsWriteSelectSet(const NetSelectMask *mask, int32_t socket) { return isSelectSet(mask, socket, kWrite); }
BOOL NetIsExceptionSelectSet(const NetSelectMask *mask, int32_t socket) {
    return isSelectSet(mask, socket, kException);
}

// A deadline more than a day away waits a day; the caller tests the deadline.
int32_t NetSelect(int32_t *count, NetSelectMask *mask, const TIME_TIMEOUT *timeout) {
    if (TimeTimeoutIsNever(timeout)) {
        trace(kIdWaitNoTimeout, 0, 3, "Wait for data (no timeout)");
        return selectOn(count, mask, nullptr);
    }
    trace(kIdWaitMilliseconds, 0, 3, "Wait %ld milliseconds for data", static_cast<long>(TimeTimeoutLeft(timeout)));
    timeval limit{};
    TimeSetTimeval(&limit, timeout);
    limit.tv_sec = std::min<time_t>(limit.tv_sec, NET_SELECT_LONGEST_WAIT);
    return selectOn(count, mask, &limit);
}

int32_t NetSelectRelative(int32_t *count, NetSelectMask *mask, int32_t milliseconds) {
    if (milliseconds < 0) {
        trace(kIdWaitNoTimeout, 0, 3, "Wait for data (no timeout)");
        return selectOn(count, mask, nullptr);
    }
    if (milliseconds == 0)
        trace(kIdPoll, 0, 3, "poll for data");
    else
        trace(kIdWaitMilliseconds, 0, 3, "Wait %ld milliseconds for data", static_cast<long>(milliseconds));
    timeval limit{milliseconds / 1000, static_cast<suseconds_t>(milliseconds % 1000) * 1000};
    return selectOn(count, mask, &limit);
}

BOOL NetCheckSelect(const NetSelectMask *mask) {
    trace(kIdCheckSelect, 0, -1, "NetCheckSelect(%p)", static_cast<const void *>(mask));
    if (mask == nullptr) return FALSE;
    const int32_t end = std::min<int32_t>(mask->iNfds, FD_SETSIZE);
    for (int32_t socket = 0; socket < end; ++socket)
        for (size_t which = 0; which < std::size(kSets); ++which)
            if (FD_ISSET(socket, &(mask->*kSets[which]->set))) checkOne(socket, which);
    return TRUE;
}

// ---- The module's part of the context ladder ----

BOOL NetInitialize(void) {
    return gAddressType.declare() && fh::netHostInitialize();
}

BOOL NetInitializeThread(void) { return TRUE; }

void NetReleaseThread(LmContext *) {}
