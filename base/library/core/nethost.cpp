// nethost.cpp - host names, interfaces, binding inside a firewall, and the
// hand-over of a socket to another process.
//
// Every name service and interface request goes through the call table of
// netcalls.h, like the socket calls of net.cpp, so tests count and answer
// them. The platform's name services answer in static storage that the next
// call overwrites: what is needed from an answer is copied out before the
// next one is asked.
//
// State. The process-wide list of NET_ADDRESS objects whose reverse look-up
// failed or did not lead back (gUnresolvable), made by NetInitialize and
// emptied by NetClearCaches; and the inherit counter in the context, which
// gives each hand-over its serial. The list has no lock: the library runs
// one context per process.
//
// Texts from files that operators edit ("Ports", "Barred Addresses",
// "Preferred Address") are scanned with bounded formats; a range of ports is
// cut to 0..65535, so a walk over it ends.
#include "core/nethost.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/config.h"
#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/net.h"
#include "core/msgpacket.h"
#include "core/msgsend.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "core/strwrap.h"
#include "core/sys.h"
#include "messages/msgmsg.h"
#include "codec.h"
#include "netcalls.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"NET        "};

// Trace ids of this part of the module, apart from those of net.cpp.
enum TraceId : int32_t {
    kIdHostAddress = 100,
    kIdAlias = 101,
    kIdAliasAddress = 102,
    kIdAliasWord = 103,
    kIdNoHostName = 104,
    kIdNoHostEntry = 105,
    kIdNoHostAddress = 106,
    kIdNoInterfaces = 107,
    kIdDiscard = 108,
    kIdNoBroadcastAddress = 109,
    kIdNoBroadcast = 110,
    kIdInterface = 111,
    kIdBroadcast = 112,
    kIdBar = 113,
    kIdBarred = 114,
    kIdFirewallEntry = 115,
    kIdFirewallSocket = 116,
    kIdFirewallPorts = 117,
    kIdInheritArguments = 118,
    kIdInheritCloseOnExec = 119,
    kIdInheritPhase2 = 120,
    kIdInheritPhase4 = 121,
    kIdPortOutOfRange = 122,
};

MemPool *gPool = nullptr;
constinit fh::ObjectType<NET_INTERFACE> gInterfaceType{NET_INTERFACE_MAGIC, NET_INTERFACE_FORMAT, fh::kReceivable};
constinit fh::ObjectType<NET_INHERIT_CONTEXT> gInheritType{NET_INHERIT_CONTEXT_MAGIC, NET_INHERIT_CONTEXT_FORMAT,
                                                           fh::kReceivable};
LIST *gUnresolvable = nullptr; // addresses whose reverse look-up failed

MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

constexpr uint32_t kLoopback = 0x7f000001;
constexpr long kHighestPort = 65535;

fh::NetCalls &calls() { return fh::netCalls(); }

using fh::repeated;

// An IPv4 address in host order from the four bytes of a host entry or a
// platform address, which are in network order.
uint32_t fromNetworkBytes(const void *bytes) {
    return fh::readBe32(static_cast<const unsigned char *>(bytes));
}

// "a.b.c.d" with each part at most 255 and nothing behind it.
bool scanDotted(uint32_t *ip, const char *name) {
    unsigned parts[4];
    char behind;
    if (sscanf(name, "%u.%u.%u.%u%c", &parts[0], &parts[1], &parts[2], &parts[3], &behind) != 4) return false;
    if (std::any_of(std::begin(parts), std::end(parts), [](unsigned p) { return p > 255; })) return false;
    *ip = parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3];
    return true;
}

void dottedForm(char (&text)[16], uint32_t ip) {
    snprintf(text, sizeof text, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xff, ip >> 8 & 0xff, ip & 0xff);
}

// The first address of an IPv4 host entry, or nothing.
bool firstAddress(uint32_t *ip, const hostent *entry) {
    if (entry == nullptr || entry->h_addrtype != AF_INET || entry->h_addr_list == nullptr ||
        entry->h_addr_list[0] == nullptr)
        return false;
    *ip = fromNetworkBytes(entry->h_addr_list[0]);
    return true;
}

NetAddressT *newAddress(const NetAddressT &address) {
    auto *object = static_cast<NetAddressT *>(
        ObjNewInternal(sizeof(NetAddressT), NET_ADDRESS_MAGIC, NET_ADDRESS_FORMAT, nullptr, pool()));
    if (object != nullptr) *object = address;
    return object;
}

// Adds item to list as a new reference of the caller's object, which the
// caller drops: the list keeps the only one.
bool addLast(LIST *list, void *object) {
    const bool added = object != nullptr && ListAddLastItem(list, object);
    ObjReleaseInternal(&object);
    return added;
}

// Whether list (of NET_ADDRESS) holds the IPv4 address of address.
bool listHoldsAddress(const LIST *list, const NetAddressT *address) {
    if (list == nullptr) return false;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext)
        if (NetAddressEqual(static_cast<const NetAddressT *>(node->oItem), address, TRUE)) return true;
    return false;
}

// The name of ip if it leads back to ip, as a new string; else null.
char *resolvedName(uint32_t ip) {
    unsigned char bytes[4] = {static_cast<unsigned char>(ip >> 24), static_cast<unsigned char>(ip >> 16),
                              static_cast<unsigned char>(ip >> 8), static_cast<unsigned char>(ip)};
    const hostent *reverse = calls().gethostbyaddr(bytes, sizeof bytes, AF_INET);
    if (reverse == nullptr || reverse->h_name == nullptr || reverse->h_name[0] == '\0') return nullptr;
    char *name = StrDuplicateIntoPool(reverse->h_name, pool());
    uint32_t forward = 0;
    if (!firstAddress(&forward, calls().gethostbyname(name)) || forward != ip) MemFreeInternal(&name);
    return name;
}

// ---- Interfaces ----

// One interface request on the entry's name; repeated while interrupted.
bool interfaceRequest(int32_t socket, unsigned long request, ifreq *entry) {
    return repeated([&] { return calls().ioctl(socket, request, entry); }) == 0;
}

// The NET_INTERFACE of one entry of SIOCGIFCONF, its broadcast address
// asked for; null for an entry that isn't IPv4 or is the loopback address.
NET_INTERFACE *interfaceOf(int32_t socket, const ifreq &entry, int32_t port, const LIST *barred) {
    const auto *in = reinterpret_cast<const sockaddr_in *>(&entry.ifr_addr);
    const uint32_t ip = fromNetworkBytes(&in->sin_addr);
    if (entry.ifr_addr.sa_family != AF_INET || ip == kLoopback) {
        trace(kIdDiscard, 0, 3, "Discarding non IPV4 / loopback address on interface '%s'", entry.ifr_name);
        return nullptr;
    }
    NetAddressT address{};
    NetInitializeIpAddress(&address, ip, port);
    if (listHoldsAddress(barred, &address)) return nullptr;
    auto *object = gInterfaceType.newInstance(pool());
    object->oAddress = address;
    ifreq request = entry;
    if (interfaceRequest(socket, SIOCGIFFLAGS, &request)) {
        if ((request.ifr_flags & IFF_BROADCAST) == 0) {
            trace(kIdNoBroadcast, 0, 3, "No broadcast address");
        } else if (request = entry; interfaceRequest(socket, SIOCGIFBRDADDR, &request)) {
            const auto *broadcast = reinterpret_cast<const sockaddr_in *>(&request.ifr_broadaddr);
            NetInitializeIpAddress(&object->oBroadcast, fromNetworkBytes(&broadcast->sin_addr), port);
        } else {
            trace(kIdNoBroadcastAddress, errno, 3, "Unable to get broadcast address");
        }
    }
    trace(kIdInterface, 0, 3, "%s: Ip address is       %d:%08lx:%ld", entry.ifr_name, NET_FAMILY_IP,
          static_cast<unsigned long>(ip), static_cast<long>(port));
    trace(kIdBroadcast, 0, 3, "   Broadcast address is %d:%08lx:%ld", NetGetFamily(&object->oBroadcast),
          static_cast<unsigned long>(NetGetIpAddress(&object->oBroadcast)),
          static_cast<long>(NetGetIpPort(&object->oBroadcast)));
    return object;
}

// The address of "Preferred Address", if it has a value that resolves.
bool preferredAddress(NetAddressT *address) {
    LIST *values = nullptr;
    bool found = false;
    if (CfgGetValueList(&values, "lmnmgr.cfg", "Network", "Preferred Address")) {
        OBJ_STRING *first = nullptr;
        if (ListGetNthItem(&first, values, 1)) found = NetGetHostAddress(address, ObjGetString(first));
        ObjReleaseInternal(&first);
    }
    ObjReleaseInternal(&values);
    return found;
}

// ---- Barred addresses ----

// Adds what the values of list resolve to; values holding commas are split
// and walked the same way. Each split makes a shorter text, so the depth is
// bounded by the length of the value.
void addBarred(LIST *barred, const LIST *values) {
    for (const LISTNODE *node = values->oFirst; node != nullptr; node = node->oNext) {
        const char *value = ObjGetString(node->oItem);
        if (value == nullptr) continue;
        if (strchr(value, ',') != nullptr) {
            LIST *items = nullptr;
            if (StrValueListFromString(&items, value)) addBarred(barred, items);
            ObjReleaseInternal(&items);
            continue;
        }
        trace(kIdBar, 0, 3, "Bar '%s'", value);
        NetAddressT address{};
        if (NetGetHostAddress(&address, value)) addLast(barred, newAddress(address));
    }
}

// ---- Firewall ----

// What one value of "Ports" names: nothing, a port, or a range [low, high].
struct PortItem {
    bool isPort;
    long low, high;
};

PortItem scanPortItem(const char *value) {
    long first = 0, second = 0;
    char behind;
    if (value == nullptr) return {false, 0, 0};
    if (sscanf(value, "%ld%c", &first, &behind) == 1) return {true, first, first};
    if (sscanf(value, "%ld - %ld%c", &first, &second, &behind) == 2)
        return {true, std::min(first, second), std::max(first, second)};
    return {false, 0, 0};
}

// Tries the ports of item from the low end; the ports of a range beyond
// 0..65535 are not tried.
bool bindInside(int32_t socket, uint32_t ip, const PortItem &item) {
    const long low = std::max(item.low, 0L), high = std::min(item.high, kHighestPort);
    if (low > high) trace(kIdPortOutOfRange, 0, 2, "Port %ld - %ld out of range", item.low, item.high);
    for (long port = low; port <= high; ++port) {
        NetAddressT address{};
        NetInitializeIpAddress(&address, ip, static_cast<int32_t>(port));
        if (NetBind(socket, &address)) return true;
    }
    return false;
}

// The values of the key, a single value split again at its commas.
LIST *firewallPorts(const char *stanza, BOOL isListening) {
    LIST *values = nullptr;
    if (!CfgGetValueList(&values, "firewall.cfg", stanza, isListening == 1 ? "Ports" : "Out Ports")) return nullptr;
    int32_t count = 0;
    ListGetItemCount(values, &count);
    trace(kIdFirewallPorts, 0, 0, "Got list of '%ld' ports", static_cast<long>(count));
    OBJ_STRING *only = nullptr;
    if (count == 1 && ListGetNthItem(&only, values, 1)) {
        LIST *split = nullptr;
        if (StrValueListFromString(&split, ObjGetString(only))) std::swap(values, split);
        ObjReleaseInternal(&split);
        ObjReleaseInternal(&only);
    }
    return values;
}

NET_INHERIT_CONTEXT *inheritContext(const void *object) {
    if (object == nullptr || !ObjCheckTypeInternal(object, NET_INHERIT_CONTEXT_MAGIC)) return nullptr;
    return static_cast<NET_INHERIT_CONTEXT *>(const_cast<void *>(object));
}

} // namespace

bool fh::netHostInitialize() {
    if (!gInterfaceType.declare() || !gInheritType.declare())
        return false;
    // Run again after a failed ladder, it keeps the list it made.
    if (gUnresolvable == nullptr) gUnresolvable = ListNewFromPool(NET_ADDRESS_MAGIC, pool());
    return gUnresolvable != nullptr;
}

// ---- Names ----

BOOL NetGetHostAddress(NetAddressT *address, const char *name) {
    if (address == nullptr || name == nullptr || name[0] == '\0') return FALSE;
    uint32_t ip = 0;
    bool found = scanDotted(&ip, name);
    if (found) {
        errno = 0;
    } else {
        const hostent *entry = calls().gethostbyname(name);
        found = firstAddress(&ip, entry);
    }
    const int error = errno;
    if (found) {
        *address = NetAddressT{};
        NetInitializeIpAddress(address, ip, 0);
    }
    trace(kIdHostAddress, error, 3, "%s = NetGetHostAddress(%s) %08lx", fh::boolText(found), name,
          static_cast<unsigned long>(ip));
    errno = error;
    return found;
}

BOOL NetGetHostName(char **name, const NetAddressT *address) {
    if (name == nullptr || address == nullptr || NetGetFamily(address) != NET_FAMILY_IP) return FALSE;
    const uint32_t ip = NetGetIpAddress(address);
    BOOL doNotResolve = FALSE;
    CfgGetBoolean(&doNotResolve, "lmnmgr.cfg", "Network", "Do not resolve", FALSE);
    if (!doNotResolve && !listHoldsAddress(gUnresolvable, address)) {
        if (char *resolved = resolvedName(ip); resolved != nullptr) {
            *name = resolved;
            return TRUE;
        }
        if (gUnresolvable != nullptr) addLast(gUnresolvable, newAddress(*address));
    }
    char dotted[16];
    dottedForm(dotted, ip);
    *name = StrDuplicateIntoPool(dotted, pool());
    return TRUE;
}

BOOL NetGetHostDetails(const char *name, LIST **aliases, LIST **addresses) {
    if (name == nullptr || name[0] == '\0') return FALSE;
    const hostent *entry = calls().gethostbyname(name);
    if (entry == nullptr) return FALSE;
    LIST *names = ListNewFromPool(OBJ_STRING_MAGIC, pool());
    LIST *ips = ListNewFromPool(OBJ_INTEGER_MAGIC, pool());
    addLast(names, ObjStringNew(entry->h_name));
    for (char **alias = entry->h_aliases; alias != nullptr && *alias != nullptr; ++alias) {
        trace(kIdAlias, 0, 3, "Found alias for host: '%s'", *alias);
        addLast(names, ObjStringNew(*alias));
    }
    for (char **ip = entry->h_addr_list; entry->h_addrtype == AF_INET && ip != nullptr && *ip != nullptr; ++ip) {
        const auto *b = reinterpret_cast<const unsigned char *>(*ip);
        const uint32_t value = fromNetworkBytes(b);
        trace(kIdAliasAddress, 0, 3, "Found IP for host: %d.%d.%d.%d", b[0], b[1], b[2], b[3]);
        trace(kIdAliasWord, 0, 3, "lIP = 0x%lx", static_cast<unsigned long>(value));
        addLast(ips, ObjIntegerNew(static_cast<int32_t>(value)));
    }
    if (aliases != nullptr) std::swap(*aliases, names);
    if (addresses != nullptr) std::swap(*addresses, ips);
    ObjReleaseInternal(&names);
    ObjReleaseInternal(&ips);
    return TRUE;
}

BOOL NetGetLocalHostName(char *buffer, int32_t size) {
    if (buffer == nullptr || size < 1) return FALSE;
    return calls().gethostname(buffer, static_cast<size_t>(size)) == 0;
}

BOOL NetGetLocalHostAddress(NetAddressT *address) {
    if (address == nullptr) return FALSE;
    std::array<char, 2048> host{};
    if (calls().gethostname(host.data(), host.size() - 1) != 0) {
        trace(kIdNoHostName, errno, 2, "Failed to get host name; %s", strerror(errno));
        return FALSE;
    }
    const hostent *entry = calls().gethostbyname(host.data());
    if (entry == nullptr) {
        trace(kIdNoHostEntry, h_errno, 2, "Failed to get host entry: %s", hstrerror(h_errno));
        return FALSE;
    }
    uint32_t ip = 0;
    if (!firstAddress(&ip, entry)) {
        trace(kIdNoHostAddress, 0, 2, "Host entry does not contain an IP address");
        return FALSE;
    }
    NetInitializeIpAddress(address, ip, 0);
    address->aBytes[0] = static_cast<unsigned char>(entry->h_length);
    return TRUE;
}

BOOL NetGetServicePort(int32_t *port, const char *name, const char *protocol) {
    if (port == nullptr || name == nullptr) return FALSE;
    const servent *service = calls().getservbyname(name, protocol);
    if (service == nullptr) return FALSE;
    *port = ntohs(static_cast<uint16_t>(service->s_port));
    return TRUE;
}

BOOL NetClearCaches(void) {
    if (gUnresolvable != nullptr) ListReleaseAll(gUnresolvable);
    return TRUE;
}

// ---- Interfaces and firewall ----

BOOL NetGetInterfaces(LIST **list, int32_t socket, int32_t portHostOrder, const LIST *barred) {
    if (list == nullptr) return FALSE;
    NetAddressT preferred{};
    const bool hasPreferred = preferredAddress(&preferred);
    std::array<ifreq, NET_INTERFACES_MAX> entries{};
    ifconf request{};
    request.ifc_len = static_cast<int>(sizeof entries);
    request.ifc_req = entries.data();
    if (repeated([&] { return calls().ioctl(socket, SIOCGIFCONF, &request); }) != 0) {
        trace(kIdNoInterfaces, errno, 2, "Failed to get list of networks: %s", strerror(errno));
        return FALSE;
    }
    const size_t count = std::min<size_t>(static_cast<size_t>(std::max(request.ifc_len, 0)) / sizeof(ifreq),
                                          entries.size());
    LIST *found = ListNewFromPool(NET_INTERFACE_MAGIC, pool());
    NET_INTERFACE *first = nullptr;
    for (size_t i = 0; i < count; ++i) {
        NET_INTERFACE *one = interfaceOf(socket, entries[i], portHostOrder, barred);
        if (one == nullptr) continue;
        if (hasPreferred && NetAddressEqual(&one->oAddress, &preferred, TRUE)) {
            ObjReleaseInternal(&first);
            first = one;
        } else {
            addLast(found, one);
        }
    }
    if (first != nullptr) {
        ListAddFirstItem(found, first);
        ObjReleaseInternal(&first);
    }
    *list = found;
    return TRUE;
}

BOOL NetBarredAddresses(LIST **list) {
    LIST *values = nullptr;
    if (list == nullptr || !CfgGetValueList(&values, "lmnmgr.cfg", "Network", "Barred Addresses")) return FALSE;
    LIST *barred = ListNewFromPool(NET_ADDRESS_MAGIC, pool());
    addBarred(barred, values);
    ObjReleaseInternal(&values);
    int32_t count = 0;
    ListGetItemCount(barred, &count);
    trace(kIdBarred, 0, 3, "Have %ld Barred addresses", static_cast<long>(count));
    *list = barred;
    return TRUE;
}

BOOL NetBindThroughFirewallTyped(int32_t socket, uint32_t ipHostOrder, const char *stanza, BOOL isListening) {
    trace(kIdFirewallEntry, 0, 0, "NetBindThroughFirewallTyped(0x%x)", static_cast<unsigned>(socket));
    if (socket == -1) {
        return trace.fault(FALSE, kIdFirewallSocket, 0, "NULL socket passed to NetBindThroughFirewallTyped");
    }
    LIST *values = stanza != nullptr ? firewallPorts(stanza, isListening) : nullptr;
    bool anyPort = false, bound = false;
    for (const LISTNODE *node = values != nullptr ? values->oFirst : nullptr; node != nullptr && !bound;
         node = node->oNext) {
        const PortItem item = scanPortItem(ObjGetString(node->oItem));
        anyPort = anyPort || item.isPort;
        bound = item.isPort && bindInside(socket, ipHostOrder, item);
    }
    ObjReleaseInternal(&values);
    if (anyPort) return bound;
    NetAddressT any{};
    NetInitializeIpAddress(&any, ipHostOrder, 0);
    return NetBind(socket, &any);
}

BOOL NetBindThroughFirewall(int32_t socket) { return NetBindThroughFirewallTyped(socket, 0, "Devices", 1); }

// ---- Hand-over ----

BOOL NetInheritPhase1(NET_INHERIT_CONTEXT **context, int32_t socket) {
    if (context == nullptr || socket == -1) {
        return trace.fault(FALSE, kIdInheritArguments, 0, "NetInheritPhase1: invalid arguments %p %ld", static_cast<void *>(context),
              static_cast<long>(socket));
    }
    const int flags = repeated([&] { return calls().fcntl(socket, F_GETFD, 0); });
    if (flags == -1 || repeated([&] { return calls().fcntl(socket, F_SETFD, flags & ~FD_CLOEXEC); }) == -1) {
        trace(kIdInheritCloseOnExec, errno, -1, "NetInheritPhase1: failed to clear close-on-exec flag: %s",
              strerror(errno));
        return FALSE;
    }
    auto *made = gInheritType.newInstance(pool());
    made->iSerial = ++gtLmContext.iNetInheritCounter;
    made->iSocket = socket;
    made->iOwner = gtLmContext.iProcessId; // the answer of the last step is addressed to it
    *context = made;
    return TRUE;
}

BOOL NetInheritPhase2(NET_INHERIT_CONTEXT *context, int32_t processId) {
    NET_INHERIT_CONTEXT *c = inheritContext(context);
    if (c == nullptr || c->iSocket == -1) {
        return trace.fault(FALSE, kIdInheritPhase2, 0, "NetInheritPhase2: invalid arguments %p %ld", static_cast<void *>(context),
              static_cast<long>(processId));
    }
    c->iTarget = processId;
    int32_t ownCopy = c->iSocket; // the number stays in the context for the other process
    return NetClose(&ownCopy);
}

namespace {

// Sends the context to process id on this machine.
BOOL sendContext(const NET_INHERIT_CONTEXT *context, int32_t processId, int32_t type) {
    MSG_ADDRESS *to = nullptr;
    if (!MsgCreateAddress(&to, SysLocalMachineName(), processId)) return FALSE;
    const BOOL sent = MsgSendObject(to, type, context);
    ObjReleaseInternal(&to);
    return sent;
}

} // namespace

BOOL NetInheritPhase3(NET_INHERIT_CONTEXT *context, int32_t processId) {
    const NET_INHERIT_CONTEXT *c = inheritContext(context);
    return c != nullptr && sendContext(c, processId, MSG_INHERIT_SOCKET_MSG);
}

BOOL NetInheritPhase4(int32_t *socket, NET_INHERIT_CONTEXT *context) {
    NET_INHERIT_CONTEXT *c = inheritContext(context);
    if (socket == nullptr || c == nullptr || c->iSocket == -1) {
        trace(kIdInheritPhase4, 0, -1, "NetInheritPhase4: invalid arguments %p %p %ld", static_cast<void *>(socket),
              static_cast<void *>(context), static_cast<long>(c != nullptr ? c->iSocket : -1));
        return FALSE;
    }
    *socket = c->iSocket;
    c->iSocket = -1;
    c->bInherited = TRUE;
    return sendContext(c, c->iOwner, MSG_INHERITED_SOCKET_MSG);
}

BOOL NetInheritDone(NET_INHERIT_CONTEXT **context) {
    if (context == nullptr || inheritContext(*context) == nullptr) return FALSE;
    if ((*context)->iSocket != -1) NetClose(&(*context)->iSocket);
    return ObjReleaseInternal(context);
}

BOOL NetInheritMatch(const void *first, const void *second) {
    const NET_INHERIT_CONTEXT *a = inheritContext(first), *b = inheritContext(second);
    return a != nullptr && b != nullptr && a->iSerial == b->iSerial;
}
