// Host names, interfaces, binding inside a firewall and the hand-over of a
// socket. The name services and interface requests are answered through the
// call table (a real reverse look-up may wait for a resolver); binding and
// the hand-over use real sockets on 127.0.0.1 and a real exec.
#include "helpers.h"
#include "net_support.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <fstream>
#include <map>

namespace {

using namespace nettest;
using NetHostTest = LibraryTest;

void writeConfig(const std::string &home, const char *file, const std::string &text) {
    mkdir((home + "/config").c_str(), 0755);
    std::ofstream(home + "/config/" + file, std::ios::binary) << text;
}

// ---- A name service of the test's own: names to addresses, addresses to
// names, and counts of the questions.
struct FakeNames {
    std::map<std::string, uint32_t> forward;
    std::map<uint32_t, std::string> reverse;
    int forwardCalls = 0, reverseCalls = 0;
};
FakeNames gNames;

hostent *answer(const std::string &name, uint32_t ip) {
    static char nameBuffer[256];
    static unsigned char addressBytes[4];
    static char *addresses[2];
    static char *aliases[] = {const_cast<char *>("alias-one"), nullptr};
    static hostent entry;
    snprintf(nameBuffer, sizeof nameBuffer, "%s", name.c_str());
    const uint32_t network = htonl(ip);
    memcpy(addressBytes, &network, 4);
    addresses[0] = reinterpret_cast<char *>(addressBytes);
    addresses[1] = nullptr;
    entry = {nameBuffer, aliases, AF_INET, 4, addresses};
    return &entry;
}

hostent *fakeByName(const char *name) {
    ++gNames.forwardCalls;
    auto found = gNames.forward.find(name);
    if (found != gNames.forward.end()) return answer(found->first, found->second);
    h_errno = HOST_NOT_FOUND;
    return nullptr;
}

hostent *fakeByAddress(const void *address, socklen_t, int) {
    ++gNames.reverseCalls;
    uint32_t network;
    memcpy(&network, address, 4);
    auto found = gNames.reverse.find(ntohl(network));
    return found == gNames.reverse.end() ? nullptr : answer(found->second, 0);
}

struct FakeNameService : PlatformCallsBack {
    FakeNameService() {
        gNames = {};
        fh::netCalls().gethostbyname = fakeByName;
        fh::netCalls().gethostbyaddr = fakeByAddress;
    }
};

std::string hostName(uint32_t ip) {
    NetAddressT address = loopback(0);
    NetInitializeIpAddress(&address, ip, 0);
    char *name = nullptr;
    return NetGetHostName(&name, &address) ? testhelp::taken(name) : "(failed)";
}

TEST_F(NetHostTest, DottedAddressesNeverAskTheNameService) {
    FakeNameService fake;
    gNames.forward = {{"1.2.3.256", 0x0a000001}, {"1.2.3.4x", 0x0a000002}, {"1.2.3", 0x0a000003},
                      {"fileserver", 0x0a000004}};
    const struct {
        const char *name;
        BOOL found;
        uint32_t ip;
        int lookups;
    } cases[] = {
        {"1.2.3.4", TRUE, 0x01020304, 0},          {"255.255.255.255", TRUE, 0xffffffff, 0},
        {"0.0.0.0", TRUE, 0, 0},                   {"1.2.3.256", TRUE, 0x0a000001, 1},
        {"1.2.3.4x", TRUE, 0x0a000002, 1},         {"1.2.3", TRUE, 0x0a000003, 1},
        {"fileserver", TRUE, 0x0a000004, 1},       {"unknown", FALSE, 0, 1},
        {"", FALSE, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        gNames.forwardCalls = 0;
        NetAddressT address;
        memset(&address, 0xEE, sizeof address);
        errno = EAGAIN;
        const BOOL found = NetGetHostAddress(&address, c.name);
        const int error = errno;
        EXPECT_EQ(found, c.found);
        EXPECT_EQ(gNames.forwardCalls, c.lookups);
        if (c.found) {
            EXPECT_EQ(NetGetIpAddress(&address), c.ip);
            EXPECT_TRUE(NetGetIpPort(&address) == 0 && address.aBytes[31] == 0);
            EXPECT_TRUE(c.lookups != 0 || error == 0);
        } else {
            EXPECT_EQ(address.aBytes[0], 0xEE);
        }
    }
    EXPECT_FALSE(NetGetHostAddress(nullptr, "1.2.3.4"));
    NetAddressT address{};
    EXPECT_FALSE(NetGetHostAddress(&address, nullptr));
}

TEST_F(NetHostTest, ReverseLookUpsAreCheckedForwardAndNotRepeated) {
    FakeNameService fake;
    gNames.reverse = {{0x0a000001, "good"}, {0x0a000002, "liar"}};
    gNames.forward = {{"good", 0x0a000001}, {"liar", 0x0a000063}};

    EXPECT_EQ(hostName(0x0a000001), "good");
    EXPECT_EQ(hostName(0x0a000002), "10.0.0.2"); // its name leads elsewhere
    EXPECT_EQ(hostName(0x0a000003), "10.0.0.3"); // no name at all
    EXPECT_EQ(gNames.reverseCalls, 3);

    // The two without a name are in the unresolvable list now; a good name is
    // asked each time.
    EXPECT_EQ(hostName(0x0a000002), "10.0.0.2");
    EXPECT_EQ(hostName(0x0a000003), "10.0.0.3");
    EXPECT_EQ(hostName(0x0a000001), "good");
    EXPECT_EQ(gNames.reverseCalls, 4);

    // Once the name service knows better, clearing the list lets it answer.
    gNames.forward["liar"] = 0x0a000002;
    EXPECT_EQ(hostName(0x0a000002), "10.0.0.2");
    ASSERT_TRUE(NetClearCaches());
    EXPECT_EQ(hostName(0x0a000002), "liar");

    // "Do not resolve" asks nothing at all.
    writeConfig(home(), "lmnmgr.cfg", "[Network]\nDo not resolve=true\n");
    const int before = gNames.reverseCalls;
    EXPECT_EQ(hostName(0x0a000001), "10.0.0.1");
    EXPECT_EQ(gNames.reverseCalls, before);

    char *name = nullptr;
    NetAddressT other{};
    EXPECT_FALSE(NetGetHostName(&name, &other)); // family 0
    EXPECT_FALSE(NetGetHostName(nullptr, &other));
    ASSERT_TRUE(NetClearCaches());
}

TEST_F(NetHostTest, HostDetailsAndTheLocalHost) {
    FakeNameService fake;
    gNames.forward = {{"fileserver", 0x0a010203}};
    LIST *aliases = nullptr, *addresses = nullptr;
    ASSERT_TRUE(NetGetHostDetails("fileserver", &aliases, &addresses));
    OBJ_STRING *name = nullptr;
    OBJ_INTEGER *ip = nullptr;
    ASSERT_TRUE(ListGetNthItem(&name, aliases, 1));
    ASSERT_TRUE(ListGetNthItem(&ip, addresses, 1));
    EXPECT_STREQ(ObjGetString(name), "fileserver");
    EXPECT_EQ(static_cast<uint32_t>(ObjGetInteger(ip)), 0x0a010203u);
    EXPECT_EQ(aliases->iCount, 2);
    for (void *o : {static_cast<void *>(aliases), static_cast<void *>(addresses), static_cast<void *>(name),
                    static_cast<void *>(ip)})
        ObjReleaseInternal(&o);
    EXPECT_FALSE(NetGetHostDetails("nosuch", nullptr, nullptr));
    EXPECT_FALSE(NetGetHostDetails("", nullptr, nullptr));
    EXPECT_TRUE(NetGetHostDetails("fileserver", nullptr, nullptr)); // outs may be null

    // The local address carries the host entry's length byte.
    char host[256] = {};
    ASSERT_TRUE(NetGetLocalHostName(host, sizeof host));
    NetAddressT local;
    EXPECT_FALSE(NetGetLocalHostAddress(&local));
    EXPECT_TRUE(traced("NET ", 105, "Failed to get host entry: Unknown host"));
    gNames.forward[host] = 0x0a090807;
    ASSERT_TRUE(NetGetLocalHostAddress(&local));
    EXPECT_EQ(NetGetAddressLength(&local), 4);
    EXPECT_TRUE(NetGetIpAddress(&local) == 0x0a090807);
}

TEST_F(NetHostTest, AnUnknownServiceLeavesTheDefault) {
    int32_t port = 20032;
    EXPECT_FALSE(NetGetServicePort(&port, "no-such-service-here", "tcp"));
    EXPECT_EQ(port, 20032);
    PlatformCallsBack back;
    fh::netCalls().getservbyname = [](const char *, const char *) -> servent * {
        static servent entry{const_cast<char *>("comms"), nullptr, static_cast<int>(htons(20100)),
                             const_cast<char *>("tcp")};
        return &entry;
    };
    EXPECT_TRUE(NetGetServicePort(&port, "comms", "tcp"));
    EXPECT_EQ(port, 20100);
}

// ---- Interfaces through a fake SIOCGIFCONF.
struct FakeInterface {
    const char *name;
    int family;
    uint32_t ip;
    int flags;         // -1: SIOCGIFFLAGS fails
    uint32_t broadcast; // 0: SIOCGIFBRDADDR fails
};
std::vector<FakeInterface> gInterfaces;
unsigned long gLastConfRoom = 0;

int fakeIoctl(int, unsigned long request, void *argument) {
    if (request == SIOCGIFCONF) {
        auto *conf = static_cast<ifconf *>(argument);
        gLastConfRoom = static_cast<unsigned long>(conf->ifc_len);
        size_t n = 0;
        for (const FakeInterface &f : gInterfaces) {
            ifreq &entry = conf->ifc_req[n++];
            memset(&entry, 0, sizeof entry);
            snprintf(entry.ifr_name, IFNAMSIZ, "%s", f.name);
            auto *in = reinterpret_cast<sockaddr_in *>(&entry.ifr_addr);
            in->sin_family = static_cast<sa_family_t>(f.family);
            in->sin_addr.s_addr = htonl(f.ip);
        }
        conf->ifc_len = static_cast<int>(n * sizeof(ifreq));
        return 0;
    }
    auto *entry = static_cast<ifreq *>(argument);
    for (const FakeInterface &f : gInterfaces) {
        if (strcmp(f.name, entry->ifr_name) != 0) continue;
        if (request == SIOCGIFFLAGS && f.flags != -1) return entry->ifr_flags = static_cast<short>(f.flags), 0;
        if (request == SIOCGIFBRDADDR && f.broadcast != 0) {
            auto *in = reinterpret_cast<sockaddr_in *>(&entry->ifr_broadaddr);
            in->sin_family = AF_INET;
            in->sin_addr.s_addr = htonl(f.broadcast);
            return 0;
        }
    }
    return errno = EADDRNOTAVAIL, -1;
}

TEST_F(NetHostTest, InterfacesPutThePreferredFirstAndDropBarredAndLoopback) {
    PlatformCallsBack back;
    fh::netCalls().ioctl = fakeIoctl;
    gInterfaces = {
        {"lo", AF_INET, 0x7f000001, IFF_LOOPBACK, 0},
        {"eth0", AF_INET, 0x0a000001, IFF_BROADCAST, 0x0a0000ff},
        {"eth1", AF_INET, 0x0a010001, IFF_BROADCAST, 0}, // its broadcast address can't be had
        {"odd", AF_INET6, 0x0a020001, 0, 0},
        {"eth2", AF_INET, 0x0a030001, -1, 0},
        {"eth3", AF_INET, 0x0a040001, 0, 0},
    };
    writeConfig(home(), "lmnmgr.cfg", "[Network]\nPreferred Address=10.3.0.1\n");
    LIST *barred = ListNewFromPool(NET_ADDRESS_MAGIC, nullptr);
    NetAddressT *bar = static_cast<NetAddressT *>(
        ObjNewInternal(sizeof(NetAddressT), NET_ADDRESS_MAGIC, NET_ADDRESS_FORMAT, nullptr, nullptr));
    NetInitializeIpAddress(bar, 0x0a040001, 99);
    ListAddLastItem(barred, bar);
    ObjReleaseInternal(&bar);

    LIST *list = nullptr;
    ASSERT_TRUE(NetGetInterfaces(&list, 0, 5000, barred));
    EXPECT_EQ(gLastConfRoom, NET_INTERFACES_MAX * sizeof(ifreq));
    std::vector<std::pair<uint32_t, uint32_t>> seen;
    for (LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        const auto *i = static_cast<const NET_INTERFACE *>(node->oItem);
        EXPECT_EQ(NetGetIpPort(&i->oAddress), 5000);
        seen.emplace_back(NetGetIpAddress(&i->oAddress), NetGetIpAddress(&i->oBroadcast));
    }
    const std::vector<std::pair<uint32_t, uint32_t>> expected = {
        {0x0a030001, 0}, {0x0a000001, 0x0a0000ff}, {0x0a010001, 0}};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(NetGetIpPort(&static_cast<const NET_INTERFACE *>(list->oFirst->oNext->oItem)->oBroadcast), 5000);
    EXPECT_TRUE(traced("NET ", 108, "Discarding non IPV4 / loopback address on interface 'lo'"));
    EXPECT_TRUE(traced("NET ", 109, "Unable to get broadcast address"));
    ObjReleaseInternal(&list);
    ObjReleaseInternal(&barred);

    fh::netCalls().ioctl = [](int, unsigned long, void *) { return errno = EINVAL, -1; };
    EXPECT_FALSE(NetGetInterfaces(&list, 0, 0, nullptr));
    EXPECT_EQ(list, nullptr);
}

TEST_F(NetHostTest, TheMachinesOwnInterfacesLeaveLoopbackOut) {
    int32_t socket = -1;
    ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_DATAGRAM));
    LIST *list = nullptr;
    ASSERT_TRUE(NetGetInterfaces(&list, socket, 0, nullptr));
    for (LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext)
        EXPECT_NE(NetGetIpAddress(&static_cast<const NET_INTERFACE *>(node->oItem)->oAddress), kLoopback);
    ObjReleaseInternal(&list);
    NetClose(&socket);
}

TEST_F(NetHostTest, BarredAddressesSplitValuesAndSkipWhatDoesNotResolve) {
    FakeNameService fake;
    gNames.forward = {{"printer", 0x0a000009}};
    LIST *list = nullptr;
    EXPECT_FALSE(NetBarredAddresses(&list));
    writeConfig(home(), "lmnmgr.cfg", "[Network]\nBarred Addresses=1.2.3.4, 5.6.7.8!,printer!, nosuch, 9.9.9.9\n");
    ASSERT_TRUE(NetBarredAddresses(&list));
    std::vector<uint32_t> seen;
    for (LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext)
        seen.push_back(NetGetIpAddress(static_cast<const NetAddressT *>(node->oItem)));
    EXPECT_EQ(seen, (std::vector<uint32_t>{0x01020304, 0x05060708, 0x0a000009, 0x09090909}));
    EXPECT_TRUE(traced("NET ", 114, "Have 4 Barred addresses"));
    ObjReleaseInternal(&list);
}

// ---- Binding inside a firewall, on real sockets. Every bind is recorded.
std::vector<int32_t> gTried;
int recordingBind(int fd, const sockaddr *address, socklen_t length) {
    gTried.push_back(ntohs(reinterpret_cast<const sockaddr_in *>(address)->sin_port));
    return fh::netPlatformCalls().bind(fd, address, length);
}

// A port free now, with the next ones likely free too.
int32_t freePort() {
    Connection probe;
    return NetGetIpPort(&probe.address);
}

TEST_F(NetHostTest, FirewallPortsAndRanges) {
    PlatformCallsBack back;
    fh::netCalls().bind = recordingBind;
    const int32_t p = freePort();
    int32_t holder = -1; // keeps port p taken
    ASSERT_TRUE(NetOpen(&holder, NET_SOCKET_STREAM));
    NetAddressT held = loopback(p);
    ASSERT_TRUE(NetBind(holder, &held));
    const auto at = [p](int32_t offset) { return std::to_string(p + offset); };
    const struct {
        std::string ports; // the text of "Ports"; empty: no key
        BOOL bound;
        std::vector<int32_t> tried; // ports asked for; 0 is the system's choice
    } cases[] = {
        {at(2) + "-" + at(0), TRUE, {p, p + 1}},         // reversed, tried upward, p is taken
        {at(0) + " - " + at(1), TRUE, {p, p + 1}},
        {at(0) + "!, " + at(1), TRUE, {p, p + 1}},       // one value holding the list
        {at(0), FALSE, {p}},                             // the only port is taken: no fallback
        {at(0) + " - " + at(0), FALSE, {p}},
        {at(1) + "x, " + at(0) + " - " + at(1) + " x", TRUE, {0}}, // text behind a number: unreadable
        {"", TRUE, {0}},                                 // no key: the system's choice
        {"any, high", TRUE, {0}},
        {"70000, " + at(1), TRUE, {p + 1}},              // beyond the ports: not tried
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ports);
        writeConfig(home(), "firewall.cfg", c.ports.empty() ? "[Test]\n" : "[Test]\nPorts=" + c.ports + "\n");
        int32_t socket = -1;
        ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_STREAM));
        gTried.clear();
        EXPECT_EQ(NetBindThroughFirewallTyped(socket, kLoopback, "Test", TRUE), c.bound);
        // Another process may hold a port of ours meanwhile: a bound range
        // may then go on upward past what this test expects.
        std::vector<int32_t> upward = c.tried;
        while (c.bound && upward.size() < gTried.size() && c.tried.size() > 1) upward.push_back(upward.back() + 1);
        EXPECT_EQ(gTried, upward);
        NetAddressT local{};
        EXPECT_TRUE(!c.bound || (NetGetLocalAddress(&local, socket) && NetGetIpPort(&local) != 0));
        NetClose(&socket);
    }
    // "Out Ports" for a connecting socket; "Ports" is not looked at then.
    writeConfig(home(), "firewall.cfg", "[Test]\nPorts=" + at(1) + "\nOut Ports=" + at(0) + "\n");
    int32_t socket = -1;
    ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_STREAM));
    gTried.clear();
    EXPECT_FALSE(NetBindThroughFirewallTyped(socket, kLoopback, "Test", FALSE));
    EXPECT_EQ(gTried, std::vector<int32_t>{p});
    NetClose(&socket);
    NetClose(&holder);
    EXPECT_FALSE(NetBindThroughFirewallTyped(-1, 0, "Test", TRUE));
    EXPECT_TRUE(traced("NET ", 116, "NULL socket passed to NetBindThroughFirewallTyped"));
}

// ---- The hand-over across exec.
int execWriter(int32_t fd) {
    const std::string script = "printf handed >&" + std::to_string(fd);
    execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char *>(nullptr));
    return 127;
}

std::string readAll(int32_t socket) {
    std::string text;
    char buffer[64];
    for (ssize_t n; (n = read(socket, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
    return text;
}

TEST_F(NetHostTest, ASocketIsHandedOverAcrossExec) {
    {
        // Without the first phase the descriptor does not survive exec.
        Connection c;
        ASSERT_TRUE(c.connect());
        EXPECT_NE(waitChild(child([&] { return execWriter(c.server); })), 0);
    }
    Connection c;
    ASSERT_TRUE(c.connect());
    NET_INHERIT_CONTEXT *context = nullptr;
    ProcSetId(4);
    ASSERT_TRUE(NetInheritPhase1(&context, c.server));
    EXPECT_TRUE(context->iSerial >= 1 && context->iOwner == 4 && context->iSocket == c.server);
    const pid_t pid = child([&] { return execWriter(c.server); });
    ASSERT_EQ(waitChild(pid), 0);
    ASSERT_TRUE(NetInheritPhase2(context, pid));
    EXPECT_EQ(context->iTarget, pid);
    EXPECT_EQ(context->iSocket, c.server); // the number, for the other process
    EXPECT_EQ(fcntl(c.server, F_GETFD), -1); // the owner's copy is closed
    c.server = -1;
    EXPECT_EQ(readAll(c.client), "handed"); // and then the end: no copy is left open

    // The answer pairs with the request by serial; a taken handle is -1 and
    // NetInheritDone closes nothing then.
    NET_INHERIT_CONTEXT *answer = nullptr, *other = nullptr;
    ASSERT_TRUE(ObjDuplicate(reinterpret_cast<void **>(&answer), context));
    answer->iSocket = -1;
    int32_t spare = -1;
    ASSERT_TRUE(NetOpen(&spare, NET_SOCKET_STREAM));
    ASSERT_TRUE(NetInheritPhase1(&other, spare));
    EXPECT_EQ(other->iSerial, context->iSerial + 1);
    EXPECT_TRUE(NetInheritMatch(context, answer));
    EXPECT_FALSE(NetInheritMatch(context, other) || NetInheritMatch(context, nullptr));
    context->iSocket = -1;
    EXPECT_TRUE(NetInheritDone(&context));
    EXPECT_TRUE(NetInheritDone(&answer));
    EXPECT_TRUE(NetInheritDone(&other)); // closes spare
    EXPECT_EQ(fcntl(spare, F_GETFD), -1);
    EXPECT_FALSE(NetInheritPhase1(&other, -1));
    EXPECT_FALSE(NetInheritDone(&other));
}

TEST_F(NetHostTest, AFailedFcntlMakesNoContext) {
    PlatformCallsBack back;
    fh::netCalls().fcntl = [](int, int, int) { return errno = EBADF, -1; };
    NET_INHERIT_CONTEXT *context = nullptr;
    EXPECT_FALSE(NetInheritPhase1(&context, 3));
    EXPECT_EQ(context, nullptr);
    EXPECT_TRUE(traced("NET ", 119, "NetInheritPhase1: failed to clear close-on-exec flag: Bad file descriptor"));
}

} // namespace
