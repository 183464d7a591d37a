// Bytes from a peer, cut into reads of any size, go to an IPC channel of the
// communication manager and to a data channel, each on a socket pair; the
// packets they deliver go through the manager's routing.
//
// The input is a list of chunks: a byte whose low bit picks the channel and
// whose other bits give the chunk's length (0 to 127), then the chunk. Each
// chunk is written to the peer end and the channel is read until it has
// nothing more. At the end both peers close. No crash, no hang, no leak:
// every channel ends down, every packet is released, and the blocks in use
// are back where they started.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/fhcore.h"
#include "objcore.h"
#include "router.h"

namespace {

// Blocks in use but for those that templates keep for good.
int32_t blocksInUse() { return MemUsedCount() - fh::objectTemplateBlocks(); }

// A socket pair whose far end the fuzzer writes; the near end is the
// channel's, the far end read empty after each chunk so answers never
// fill it.
struct Pair {
    int near = -1, far = -1;
    Pair() {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) abort();
        near = fds[0];
        far = fds[1];
    }
    void drain() const {
        char sink[4096];
        while (recv(far, sink, sizeof sink, MSG_DONTWAIT) > 0) {
        }
    }
};

fhcmgr::Router *gRouter = nullptr;

void readAll(MSG_CHANNEL *channel, bool viaRouter) {
    NetSelectMask *ready = nullptr;
    NetInitializeSelectMask(&ready);
    for (int pass = 0; pass < 64 && !MsgChannelIsDown(channel); ++pass) {
        if (viaRouter) {
            NetAddReadSelect(ready, MsgChannelSocket(channel));
            gRouter->serve(ready);
            continue;
        }
        MSG_PACKET *packet = nullptr;
        if (MsgChannelReceiveData(&packet, channel)) gRouter->route(channel, &packet);
    }
    NetReleaseSelectMask(&ready);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char home[] = "/tmp/fhcore-channel-fuzz-XXXXXX";
    if (mkdtemp(home) == nullptr) abort();
    setenv("FHHOME", home, 1);
    if (!ContextInitialize() || !ProcSetId(2)) abort();
    TraceSetLevel(1);
    static fhcmgr::Router router(1 << 20);
    gRouter = &router;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int32_t blocks = blocksInUse();
    Pair ipc, plain;
    MSG_CHANNEL *ipcChannel = nullptr, *dataChannel = nullptr;
    if (!gRouter->add(ipc.near, &ipcChannel) || !MsgChannelCreate(&dataChannel, plain.near)) abort();
    for (size_t at = 0; at < size;) {
        const bool toIpc = (data[at] & 1) == 0;
        const size_t length = std::min<size_t>(data[at] >> 1, size - at - 1);
        const Pair &pair = toIpc ? ipc : plain;
        MSG_CHANNEL *channel = toIpc ? ipcChannel : dataChannel;
        at += 1 + length;
        if (MsgChannelIsDown(channel)) continue; // its end is closed: nothing more goes in
        if (length > 0 && send(pair.far, data + at - length, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length))
            abort();
        readAll(channel, toIpc);
        pair.drain();
    }
    close(ipc.far);
    close(plain.far);
    readAll(ipcChannel, true);
    readAll(dataChannel, false);
    if (!MsgChannelIsDown(ipcChannel) || !MsgChannelIsDown(dataChannel)) abort();
    gRouter->sweep();
    MSG_ADDRESS *address = nullptr;
    if (MsgChannelAddress(&address, dataChannel) && !MsgChannelClose(&address)) abort();
    ObjReleaseInternal(&dataChannel);
    if (gRouter->clients() != 0 || MsgReceiveCount() != 0 || blocksInUse() != blocks) {
        fprintf(stderr, "left: %zu clients, %ld queued, %ld blocks\n", gRouter->clients(), static_cast<long>(MsgReceiveCount()), static_cast<long>(blocksInUse() - blocks));
        abort();
    }
    return 0;
}
