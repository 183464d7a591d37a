// Packet images arrive from sockets, and "Ports" values and host names from
// files that operators edit. The first byte picks the reader for the rest:
//
//   0  MsgMessageFromPacket on an image of the bytes
//   1  MsgObjectFromPacketInternal, the type, the channel test and a
//      redirect on such an image
//   2  NetGetHostAddress of the bytes as a name (no name service: only a
//      dotted address can resolve)
//   3  the bytes as the "Ports" value of a firewall stanza, walked by
//      NetBindThroughFirewallTyped over a bind that takes one port in 256
//
// No crash, no hang, no leak: every object made is released again, a
// message read carries the type of its image, a dotted address prints back
// as itself, and the walk over ports stays within 65536 binds per value.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "core/fhcore.h"
#include "netcalls.h"
#include "seams.h"
#include "leakcheck.h"

namespace {

std::string gHome;
long gBinds = 0;

int countingBind(int, const sockaddr *address, socklen_t) {
    ++gBinds;
    const auto *in = reinterpret_cast<const sockaddr_in *>(address);
    return ntohs(in->sin_port) % 256 == 255 ? 0 : (errno = EADDRINUSE, -1);
}

MSG_PACKET *packetOf(const uint8_t *data, size_t size) {
    auto *packet = static_cast<MSG_PACKET *>(ObjTemplateNewInstanceFromPool(gtObjTemplatePacket, nullptr));
    packet->oImage.iSize = static_cast<int32_t>(size);
    packet->oImage.pData = MemAllocateFromPool(size + 1, nullptr);
    memcpy(packet->oImage.pData, data, size);
    return packet;
}

int32_t le32(const uint8_t *p) { return static_cast<int32_t>(p[0] | p[1] << 8 | p[2] << 16 | uint32_t{p[3]} << 24); }

void readMessage(const uint8_t *data, size_t size) {
    MSG_PACKET *packet = packetOf(data, size);
    MSG_MESSAGE *message = nullptr;
    if (MsgMessageFromPacket(&message, packet) && MsgType(message) != le32(data + 24)) abort();
    ObjReleaseInternal(&message);
    ObjReleaseInternal(&packet);
}

void readBody(const uint8_t *data, size_t size) {
    MSG_PACKET *packet = packetOf(data, size);
    void *body = nullptr;
    if (MsgObjectFromPacketInternal(&body, packet, 0) && body == nullptr) abort(); // a null body passes -1 only
    ObjReleaseInternal(&body);
    if (MsgObjectFromPacketInternal(&body, packet, 0xFFFFFFFFu) && body != nullptr) abort();
    const int32_t type = MsgPacketMsgType(packet);
    MsgPacketIsFromChannel(packet);
    if (MsgRedirectPacket(MsgProcMgrAddress(), packet) && MsgPacketMsgType(packet) != type) abort();
    ObjReleaseInternal(&packet);
}

void scanName(const uint8_t *data, size_t size) {
    const std::string name(reinterpret_cast<const char *>(data), size);
    NetAddressT address{};
    if (!NetGetHostAddress(&address, name.c_str())) return;
    const uint32_t ip = NetGetIpAddress(&address);
    char dotted[16];
    snprintf(dotted, sizeof dotted, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xff, ip >> 8 & 0xff, ip & 0xff);
    NetAddressT again{};
    if (!NetGetHostAddress(&again, dotted) || !NetAddressEqual(&address, &again, FALSE)) abort();
}

void walkPorts(const uint8_t *data, size_t size) {
    std::string value(reinterpret_cast<const char *>(data), size);
    for (char &c : value)
        if (c == '\n' || c == '\r' || c == '\0') c = ' ';
    std::ofstream(gHome + "/config/firewall.cfg", std::ios::binary | std::ios::trunc) << "[Fuzz]\nPorts=" << value
                                                                                       << "\n";
    gBinds = 0;
    NetBindThroughFirewallTyped(3, 0, "Fuzz", TRUE);
    if (gBinds > 65536L * static_cast<long>(size + 1)) abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char pattern[] = "/tmp/fhcore-msgpacket-fuzz-XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    gHome = pattern;
    setenv("FHHOME", gHome.c_str(), 1);
    mkdir((gHome + "/config").c_str(), 0755);
    mkdir((gHome + "/etc").c_str(), 0755);
    std::ofstream(gHome + "/etc/machines.dat")
        << "[beta]\nId=2\n\n[Old:gamma]\nId=3\n\n[gamma]\nId=4\nContact Address=10.0.0.4\n\n[delta]\nId=-5\n";
    ContextInitialize();
    PathInitialize();
    TraceSetLevel(TRACE_LEVEL_LIBVERBOSE);
    fh::netCalls().gethostbyname = [](const char *) -> hostent * { return nullptr; };
    fh::netCalls().bind = countingBind;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 1 << 20) return 0;
    const InUse before;
    const uint8_t *rest = data + 1;
    const size_t length = size - 1;
    switch (data[0] % 4) {
    case 0: readMessage(rest, length); break;
    case 1: readBody(rest, length); break;
    case 2: scanName(rest, length); break;
    default: walkPorts(rest, std::min<size_t>(length, 4000)); break;
    }
    CHECK(!before.objectsLeaked());
    fh::objectForgetUnusedForeignTemplates();
    return 0;
}
