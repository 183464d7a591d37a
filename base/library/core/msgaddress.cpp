// msgaddress.cpp - messaging: addresses, machine ids and the networks of a
// machine.
//
// An MSG_ADDRESS is a machine name and a process id; a null name makes it a
// channel address. The well-known addresses are made once by MsgInitialize
// and handed out borrowed; the process's own address hangs from the context
// (oMsgLocalAddress), made with id 0 by MsgInitializeThread and remade by
// MsgCreateLocalAddress.
//
// Machine ids come from "etc/machines.dat" under the home directory, read
// anew on every call: the network manager rewrites the file while processes
// run. Only stanzas without a category are machines; "Id" is read from the
// first value of the first key of that name, as a whole decimal number.
//
// Channel addresses are looked up through msgChannelView (msgchannel.h):
// whatever the channel map of the process knows of the channel.
#include "core/msgpacket.h"

#include <cstdio>
#include <cstring>
#include <optional>

#include "core/config.h"
#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/nethost.h"
#include "core/path.h"
#include "core/stanza.h"
#include "core/stanzafile.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "msgchannel.h"
#include "objcore.h"
#include "tracer.h"

ObjectTemplate *gtObjTemplateAddress = nullptr;

namespace {

constinit fh::ObjectType<MSG_ADDRESS> gAddressType{MSG_ADDRESS_MAGIC, MSG_ADDRESS_FORMAT, fh::kReceivable, nullptr,
                                                  &gtObjTemplateAddress};

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdBadAddress = 20,
    kIdUnmappedMachine = 21,
    kIdNoChannel = 22,
};

MemPool *gPool = nullptr;
MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }


// The well-known addresses, by process id; made once per process.
struct WellKnown {
    int32_t id;
    MSG_ADDRESS *address;
};
WellKnown gWellKnown[] = {{MSG_PROCESS_PROCMGR, nullptr},   {MSG_PROCESS_COMMMGR, nullptr},
                          {MSG_PROCESS_NETMGR, nullptr},    {MSG_PROCESS_LOGDAEMON, nullptr},
                          {MSG_PROCESS_AUDITOR, nullptr}};
MSG_ADDRESS *gChannelDummy = nullptr;

MSG_ADDRESS *wellKnown(int32_t id) {
    for (const WellKnown &w : gWellKnown)
        if (w.id == id) return w.address;
    return nullptr;
}

using fh::msgAddressOf;

MSG_ADDRESS *newAddress(const char *machine, int32_t process) {
    auto *a = gAddressType.newInstance(pool());
    if (a == nullptr) return nullptr;
    a->pszMachine = machine != nullptr ? StrDuplicateIntoPool(machine, pool()) : nullptr;
    a->iProcess = process;
    return a;
}

bool isLocalName(const char *name) {
    const char *local = SysLocalMachineName();
    return name != nullptr && local != nullptr && StrCompareNoCase(name, local) == 0;
}

// A whole decimal number that fits 32 bits, as "Id" must be.
std::optional<int32_t> parseId(const char *text) {
    long value = 0;
    char behind;
    if (text == nullptr || sscanf(text, "%ld%c", &value, &behind) != 1 || value < INT32_MIN || value > INT32_MAX)
        return std::nullopt;
    return static_cast<int32_t>(value);
}

// ---- machines.dat ----

// The machines file opened for reading; null when it can't be.
STNZ_FILE *openMachines() {
    char *path = PathHomeBuild("etc", "machines.dat", static_cast<char *>(nullptr));
    STNZ_FILE *file = nullptr;
    if (path != nullptr && !StnzOpenFile(&file, path, STNZ_MODE_READ)) file = nullptr;
    MemFreeInternal(&path);
    return file;
}

// The stanza of machine name (no category), as a new stanza; null if none.
Stanza *machineStanza(const char *name) {
    STNZ_FILE *file = openMachines();
    Stanza *stanza = nullptr;
    if (file != nullptr && StnzFindStanza(file, nullptr, name) && !StnzLoadCurrentStanza(&stanza, file))
        stanza = nullptr;
    StnzCloseFile(&file);
    return stanza;
}

std::optional<int32_t> idOfStanza(const Stanza *stanza) {
    StanzaKey *key = nullptr;
    if (!StnzGetKey(&key, stanza, "Id")) return std::nullopt;
    return parseId(StnzKeyValue(key, 1));
}

// The title of the first stanza without a category whose "Id" is id, as a
// new string; null if none.
char *machineOfId(int32_t id) {
    STNZ_FILE *file = openMachines();
    char *title = nullptr;
    while (file != nullptr && title == nullptr && StnzFindKeyword(file, "Id")) {
        StanzaKey *key = nullptr;
        if (!StnzLoadCurrentKey(&key, file)) break;
        const std::optional<int32_t> value = parseId(StnzKeyValue(key, 1));
        StnzReleaseKey(&key);
        char *category = nullptr;
        if (value == id && StnzCurrentTitle(&category, &title, file) && category != nullptr) {
            MemFreeInternal(&category);
            MemFreeInternal(&title);
        }
    }
    StnzCloseFile(&file);
    return title;
}

// ---- Networks of a machine ----

constexpr const char *kNetKeys[] = {"Contact Address", "Preferred Address", "Networks"};

// Adds the address value resolves to, unless the list holds it already.
void addNet(LIST *list, const char *value) {
    NetAddressT resolved{};
    if (value == nullptr || !NetGetHostAddress(&resolved, value)) return;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext)
        if (NetAddressEqual(static_cast<const NetAddressT *>(node->oItem), &resolved, TRUE)) return;
    void *object = ObjNewInternal(sizeof(NetAddressT), NET_ADDRESS_MAGIC, NET_ADDRESS_FORMAT, nullptr, pool());
    *static_cast<NetAddressT *>(object) = resolved;
    ListAddLastItem(list, object);
    ObjReleaseInternal(&object);
}

void loopbackAddress(NetAddressT *address) {
    *address = NetAddressT{};
    NetInitializeIpAddress(address, 0x7f000001, 0);
}

} // namespace

// ---- The module's part of start-up ----

bool fh::msgAddressesInitialize() {
    if (!gAddressType.declare()) return false;
    // Run again after a failed ladder, it keeps what it made.
    const char *machine = SysLocalMachineName();
    for (WellKnown &w : gWellKnown)
        if (w.address == nullptr) w.address = newAddress(machine != nullptr ? machine : "", w.id);
    if (gChannelDummy == nullptr) gChannelDummy = newAddress(nullptr, 0);
    return gChannelDummy != nullptr;
}

bool fh::msgAddressesInitializeThread() {
    ObjReleaseInternal(&gtLmContext.oMsgLocalAddress);
    const char *machine = SysLocalMachineName();
    gtLmContext.oMsgLocalAddress = newAddress(machine != nullptr ? machine : "", 0);
    return gtLmContext.oMsgLocalAddress != nullptr;
}


// ---- Addresses ----

BOOL MsgMakeAddress(MSG_ADDRESS **address, const char *machineName, int32_t processId) {
    if (address == nullptr || gtObjTemplateAddress == nullptr) {
        return trace.fault(FALSE, kIdBadAddress, 0, "MsgMakeAddress(%p, %s, %ld) - bad arguments", static_cast<void *>(address),
              machineName != nullptr ? machineName : "(null)", static_cast<long>(processId));
    }
    *address = newAddress(machineName, processId);
    return *address != nullptr;
}

BOOL MsgCreateAddress(MSG_ADDRESS **address, const char *machineName, int32_t processId) {
    if (machineName == nullptr) {
        return trace.fault(FALSE, kIdBadAddress, 0, "MsgCreateAddress(%p, (null), %ld) - no machine name",
              static_cast<void *>(address), static_cast<long>(processId));
    }
    return MsgMakeAddress(address, machineName, processId);
}

MSG_ADDRESS *MsgProcMgrAddress(void) { return wellKnown(MSG_PROCESS_PROCMGR); }
MSG_ADDRESS *MsgCommMgrAddress(void) { return wellKnown(MSG_PROCESS_COMMMGR); }
MSG_ADDRESS *MsgNetMgrAddress(void) { return wellKnown(MSG_PROCESS_NETMGR); }
MSG_ADDRESS *MsgLogDaemonAddress(void) { return wellKnown(MSG_PROCESS_LOGDAEMON); }
MSG_ADDRESS *MsgAuditorAddress(void) { return wellKnown(MSG_PROCESS_AUDITOR); }
MSG_ADDRESS *MsgChannelDummyAddress(void) { return gChannelDummy; }
MSG_ADDRESS *MsgLocalAddress(void) { return static_cast<MSG_ADDRESS *>(gtLmContext.oMsgLocalAddress); }

BOOL MsgCreateLocalAddress(void) {
    if (gtLmContext.oMsgLocalAddress == nullptr) return FALSE;
    const char *machine = SysLocalMachineName();
    MSG_ADDRESS *made = newAddress(machine != nullptr ? machine : "", gtLmContext.iProcessId);
    if (made == nullptr) return FALSE;
    ObjReleaseInternal(&gtLmContext.oMsgLocalAddress);
    gtLmContext.oMsgLocalAddress = made;
    return TRUE;
}

BOOL MsgIsAChannel(const void *address) {
    const MSG_ADDRESS *a = msgAddressOf(address);
    return a != nullptr && a->pszMachine == nullptr;
}

int32_t MsgGetProcessId(const void *address) {
    const MSG_ADDRESS *a = msgAddressOf(address);
    return a != nullptr ? a->iProcess : -1;
}

int32_t MsgGetChannelId(const void *address) { return MsgIsAChannel(address) ? MsgGetProcessId(address) : -1; }

const char *MsgGetMachineName(const void *address) {
    const MSG_ADDRESS *a = msgAddressOf(address);
    return a != nullptr ? a->pszMachine : nullptr;
}

BOOL MsgAddressMachinesEqual(const void *first, const void *second) {
    const MSG_ADDRESS *a = msgAddressOf(first), *b = msgAddressOf(second);
    if (a == nullptr || b == nullptr) return FALSE;
    return StrCompareNoCase(a->pszMachine != nullptr ? a->pszMachine : "",
                            b->pszMachine != nullptr ? b->pszMachine : "") == 0;
}

BOOL MsgAddressEqual(const void *first, const void *second) {
    return MsgAddressMachinesEqual(first, second) && MsgGetProcessId(first) == MsgGetProcessId(second);
}

BOOL MsgAddressIsFrom(const void *address, const void *source) {
    MSG_ADDRESS *sender = nullptr;
    if (!MsgSenderAddressFromSourceAddress(&sender, source)) return FALSE;
    const BOOL equal = MsgAddressEqual(address, sender);
    ObjReleaseInternal(&sender);
    return equal;
}

BOOL MsgIsLocalMachine(const void *address) {
    const MSG_ADDRESS *a = msgAddressOf(address);
    if (a == nullptr) return FALSE;
    if (a->pszMachine != nullptr) return isLocalName(a->pszMachine);
    const fh::ChannelView channel = fh::msgChannelView(a->iProcess);
    if (!channel.found) return FALSE;
    if (channel.isNdmp) return TRUE;
    if (channel.hasProxyPeer) return FALSE;
    return isLocalName(MsgGetMachineName(channel.remote));
}

BOOL MsgSenderAddressFromSourceAddress(MSG_ADDRESS **address, const void *source) {
    const MSG_ADDRESS *a = msgAddressOf(source);
    if (address == nullptr || a == nullptr) return FALSE;
    if (a->pszMachine == nullptr) {
        const fh::ChannelView channel = fh::msgChannelView(a->iProcess);
        if (!channel.found || channel.remote == nullptr) return FALSE;
        a = channel.remote;
    }
    ObjIncRefCount(const_cast<MSG_ADDRESS *>(a));
    *address = const_cast<MSG_ADDRESS *>(a);
    return TRUE;
}

BOOL MsgGetSenderFromSource(MSG_ADDRESS **address, const void *source) {
    if (address == nullptr || msgAddressOf(source) == nullptr) return TRUE;
    return MsgSenderAddressFromSourceAddress(address, source);
}

// ---- Machine ids and networks ----

BOOL MsgMachineNameToId(int32_t *id, const char *name) {
    if (id == nullptr) return FALSE;
    if (name == nullptr || isLocalName(name)) {
        *id = name == nullptr ? MSG_MACHINE_CHANNEL : MSG_MACHINE_LOCAL;
        return TRUE;
    }
    Stanza *stanza = machineStanza(name);
    const int32_t found = stanza != nullptr ? idOfStanza(stanza).value_or(0) : 0;
    StnzRelease(&stanza);
    if (found <= 0) return FALSE;
    *id = found;
    return TRUE;
}

BOOL MsgAddressFromPacketAddress(MSG_ADDRESS **address, const MsgPacketAddress *packetAddress) {
    if (address == nullptr || packetAddress == nullptr) return FALSE;
    const int32_t machine = packetAddress->iMachine;
    char *name = nullptr;
    if (machine == MSG_MACHINE_LOCAL)
        name = StrDuplicateIntoPool(SysLocalMachineName() != nullptr ? SysLocalMachineName() : "", pool());
    else if (machine > MSG_MACHINE_LOCAL)
        name = machineOfId(machine);
    if (name == nullptr && machine != MSG_MACHINE_CHANNEL) {
        trace(kIdUnmappedMachine, machine, -1, "Failed to map machine id %ld to name", static_cast<long>(machine));
        return FALSE;
    }
    *address = newAddress(nullptr, packetAddress->iProcess);
    (*address)->pszMachine = name; // the address takes the name over
    return TRUE;
}

bool fh::msgMachineCanTunnel(const void *address) {
    const char *machine = MsgGetMachineName(address);
    if (machine == nullptr || *machine == '\0') return false;
    BOOL can = FALSE;
    Stanza *stanza = machineStanza(machine);
    if (stanza != nullptr) StnzGetBoolean(stanza, "Can Tunnel", FALSE, &can);
    StnzRelease(&stanza);
    return can != FALSE;
}

BOOL MsgMachineIsServer(const char *name) {
    BOOL server = FALSE;
    if (name == nullptr || isLocalName(name)) {
        CfgGetBoolean(&server, "configure.cfg", "details", "server", FALSE);
        return server;
    }
    Stanza *stanza = machineStanza(name);
    if (stanza != nullptr) StnzGetBoolean(stanza, "Server", FALSE, &server);
    StnzRelease(&stanza);
    return server;
}

BOOL MsgPreferredNetFromStanza(const Stanza *stanza, NetAddressT *netAddress) {
    if (stanza == nullptr || netAddress == nullptr) return FALSE;
    for (const char *keyword : kNetKeys) {
        StanzaKey *key = nullptr;
        if (!StnzGetKey(&key, stanza, keyword) || StnzKeyValueCount(key) < 1) continue;
        for (int32_t i = 1; i <= StnzKeyValueCount(key); ++i) {
            const char *value = StnzKeyValue(key, i);
            if (value != nullptr && NetGetHostAddress(netAddress, value)) return TRUE;
        }
        return FALSE; // this key decides, even when none of its values resolves
    }
    return FALSE;
}

BOOL MsgPreferredNet(const void *address, NetAddressT *netAddress) {
    const char *machine = MsgGetMachineName(address);
    if (machine == nullptr || netAddress == nullptr) return FALSE;
    if (isLocalName(machine)) {
        loopbackAddress(netAddress);
        return TRUE;
    }
    Stanza *stanza = machineStanza(machine);
    const BOOL found = MsgPreferredNetFromStanza(stanza, netAddress);
    StnzRelease(&stanza);
    return found;
}

BOOL MsgNets(LIST **list, const void *address) {
    const char *machine = MsgGetMachineName(address);
    if (list == nullptr || machine == nullptr) return FALSE;
    LIST *nets = ListNewFromPool(NET_ADDRESS_MAGIC, pool());
    if (isLocalName(machine)) {
        addNet(nets, "127.0.0.1");
    } else if (Stanza *stanza = machineStanza(machine); stanza != nullptr) {
        for (const char *keyword : kNetKeys) {
            StanzaKey *key = nullptr;
            if (!StnzGetKey(&key, stanza, keyword)) continue;
            const int32_t last = keyword == kNetKeys[2] ? StnzKeyValueCount(key) : 1;
            for (int32_t i = 1; i <= last; ++i) addNet(nets, StnzKeyValue(key, i));
        }
        StnzRelease(&stanza);
    }
    if (nets->iCount == 0) {
        ObjReleaseInternal(&nets);
        return FALSE;
    }
    *list = nets;
    return TRUE;
}

// ---- Channels, as far as this process's map knows them ----

BOOL MsgIsFrom(const void *message, const void *address) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    if (m == nullptr || msgAddressOf(address) == nullptr) return FALSE;
    if (MsgIsAChannel(address) || !MsgIsAChannel(m->oSource)) return MsgAddressEqual(m->oSource, address);
    const fh::ChannelView channel = fh::msgChannelView(m->oSource->iProcess);
    if (!channel.found) {
        trace(kIdNoChannel, 0, 2, "Could not find channel %ld", static_cast<long>(m->oSource->iProcess));
        return FALSE;
    }
    return MsgAddressEqual(channel.remote, address);
}
