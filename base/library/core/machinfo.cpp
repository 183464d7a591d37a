// machinfo.cpp - machine information: the answers of the local machine's
// configuration, or of another machine's stanza in "etc/machines.dat".
//
// Each question is one item: the local file it reads in section "Details",
// the key, and its default. A remote question loads the machine's stanza
// (no category, the machine name as title) anew, reads the key and releases
// the stanza, so that what the network manager wrote a moment ago counts.
// Keys compare without regard to case, so "LMBuildLevel" and "LMBuildlevel"
// are one key; the two build-level questions differ in the local file.
//
// MachInfoFind asks the network manager by message and waits through the
// message wait; the wait ends on the manager's answer or on news that it
// can't be reached.
#include "core/machinfo.h"

#include <cstdio>

#include "core/config.h"
#include "core/memory.h"
#include "core/msgpacket.h"
#include "core/msgsend.h"
#include "core/msgwait.h"
#include "core/path.h"
#include "core/stanza.h"
#include "core/stanzafile.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "messages/msgnmgr.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MACHINFO        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdBadArgument = 1,
    kIdNoInfo = 2,
    kIdUnknownType = 3,
    kIdNoServerKey = 4,
    kIdNoDescription = 5,
    kIdNoBuildLevel = 6,
    kIdFind = 7,
};

constinit fh::ObjectType<NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST> gRequestType{
    NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MAGIC, NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_FORMAT, fh::kReceivable};
constinit fh::ObjectType<NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE> gResponseType{
    NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MAGIC, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_FORMAT, fh::kReceivable};

constexpr int32_t kDefaultVersion = 6003;
constexpr const char *kSection = "Details";
constexpr const char *kConfigure = "configure.cfg";
constexpr const char *kVersionFile = "version.cfg";

// The buffer of the version texts: "%ld.%ld" of two 32-bit values at most.
char gVersionText[32];

bool isLocal(const char *machine) {
    const char *local = SysLocalMachineName();
    return local != nullptr && StrCompareNoCase(machine, local) == 0;
}

// The stanza of a machine other than this one, loaded anew; released with
// the holder. Empty, traced, when the machine has none.
class MachineStanza {
  public:
    explicit MachineStanza(const char *machine) {
        char *path = PathHomeBuild("etc", "machines.dat", static_cast<char *>(nullptr));
        if (path == nullptr || !StnzLoadStanzaFromFile(&stanza_, path, nullptr, machine)) stanza_ = nullptr;
        MemFreeInternal(&path);
        if (stanza_ == nullptr) trace(kIdNoInfo, 0, 2, "Have no info for machine '%s'", machine);
    }
    ~MachineStanza() { StnzRelease(&stanza_); }
    MachineStanza(const MachineStanza &) = delete;
    MachineStanza &operator=(const MachineStanza &) = delete;

    explicit operator bool() const { return stanza_ != nullptr; }
    const Stanza *get() const { return stanza_; }
    bool has(const char *keyword) const {
        StanzaKey *key = nullptr;
        return StnzGetKey(&key, stanza_, keyword) != FALSE;
    }

  private:
    Stanza *stanza_ = nullptr;
};

// One integer question: the local file and the key in it, the key of the
// stanza, its default, and the trace for a stanza without the key (null:
// none).
struct IntegerItem {
    const char *localFile;
    const char *key;
    int32_t fallback;
    const char *missing;
};
constexpr IntegerItem kVersion{kVersionFile, "LMVersion", kDefaultVersion, nullptr};
constexpr IntegerItem kBuildOfVersion{kVersionFile, "LMBuildLevel", 0, "Machine info has no build level key"};
constexpr IntegerItem kPatchLevel{kConfigure, "LMBuildlevel", 0, nullptr};

bool checked(const void *out, const char *machine, const char *operation) {
    if (out != nullptr && machine != nullptr) return true;
    return trace.fault(false, kIdBadArgument, 0, "%s: null argument (%p, %p)", operation, out, machine);
}

bool answerInteger(int32_t *out, const char *machine, const IntegerItem &item) {
    if (isLocal(machine)) {
        CfgGetInteger(out, item.localFile, kSection, item.key, item.fallback);
        return true;
    }
    const MachineStanza stanza(machine);
    if (!stanza) return false;
    if (item.missing != nullptr && !stanza.has(item.key)) trace(kIdNoBuildLevel, 0, 2, "%s", item.missing);
    return StnzGetInteger(stanza.get(), item.key, item.fallback, out) != FALSE;
}

// An address: the key's value, or the machine name.
bool answerAddress(char **out, const char *machine, const char *key) {
    if (isLocal(machine)) {
        CfgGetString(out, kConfigure, kSection, key, machine);
        return *out != nullptr;
    }
    const MachineStanza stanza(machine);
    return stanza && StnzGetString(stanza.get(), key, machine, out) && *out != nullptr;
}

int32_t versionOf(const char *machine) {
    int32_t version = 0;
    return machine != nullptr && answerInteger(&version, machine, kVersion) ? version : 0;
}

} // namespace

BOOL MachInfoGetSystemType(int32_t *type, const char *machine) {
    if (!checked(type, machine, "MachInfoGetSystemType")) return FALSE;
    if (isLocal(machine)) return TRUE;
    const MachineStanza stanza(machine);
    char *text = nullptr;
    if (!stanza || !StnzGetString(stanza.get(), "Type", "unix", &text)) return FALSE;
    const bool unix = StrCompareNoCase(text, "unix") == 0, windows = StrCompareNoCase(text, "winnt") == 0;
    MemFreeInternal(&text);
    if (!unix && !windows) {
        trace(kIdUnknownType, 0, 2, "Machine is of unknown type!");
        return FALSE;
    }
    *type = windows ? MACHINFO_SYSTEM_WINDOWS : MACHINFO_SYSTEM_UNIX;
    return TRUE;
}

BOOL MachInfoIsLMServer(BOOL *server, const char *machine) {
    if (!checked(server, machine, "MachInfoIsLMServer")) return FALSE;
    if (isLocal(machine)) {
        CfgGetBoolean(server, kConfigure, kSection, "Server", FALSE);
        return TRUE;
    }
    const MachineStanza stanza(machine);
    if (!stanza) return FALSE;
    if (!stanza.has("Server")) trace(kIdNoServerKey, 0, 2, "Cannot find SERVER key!");
    return StnzGetBoolean(stanza.get(), "Server", FALSE, server);
}

BOOL MachInfoGetDescription(char **description, const char *machine) {
    if (!checked(description, machine, "MachInfoGetDescription")) return FALSE;
    char *text = nullptr;
    if (isLocal(machine)) {
        CfgGetString(&text, kConfigure, kSection, "Description", nullptr);
    } else {
        const MachineStanza stanza(machine);
        if (!stanza) return FALSE;
        StnzGetString(stanza.get(), "Description", nullptr, &text);
    }
    if (text == nullptr) {
        trace(kIdNoDescription, 0, 2, "Machine info for %s has no description key", machine);
        return FALSE;
    }
    *description = text;
    return TRUE;
}

BOOL MachInfoGetLMVersion(int32_t *version, const char *machine) {
    return checked(version, machine, "MachInfoGetLMVersion") && answerInteger(version, machine, kVersion);
}

BOOL MachInfoGetLMVersionAndBuild(int32_t *versionAndBuild, const char *machine) {
    int32_t version = 0, build = 0;
    if (!checked(versionAndBuild, machine, "MachInfoGetLMVersionAndBuild") ||
        !answerInteger(&version, machine, kVersion) || !answerInteger(&build, machine, kBuildOfVersion))
        return FALSE;
    *versionAndBuild = static_cast<int32_t>(static_cast<int64_t>(version) * 1000 + build);
    return TRUE;
}

BOOL MachInfoGetLMPatchLevel(int32_t *level, const char *machine) {
    return checked(level, machine, "MachInfoGetLMPatchLevel") && answerInteger(level, machine, kPatchLevel);
}

BOOL MachInfoGetPreferredAddr(char **address, const char *machine) {
    return checked(address, machine, "MachInfoGetPreferredAddr") && answerAddress(address, machine, "Preferred Address");
}

BOOL MachInfoGetContactAddr(char **address, const char *machine) {
    return checked(address, machine, "MachInfoGetContactAddr") && answerAddress(address, machine, "Contact Address");
}

int32_t MachInfoLMVersionMajorFromLMVersion(int32_t version) { return version / 1000; }
int32_t MachInfoLMVersionMinorFromLMVersion(int32_t version) { return version % 1000; }
int32_t MachInfoLMVersionMajor(const char *machine) { return MachInfoLMVersionMajorFromLMVersion(versionOf(machine)); }
int32_t MachInfoLMVersionMinor(const char *machine) { return MachInfoLMVersionMinorFromLMVersion(versionOf(machine)); }

const char *MachInfoLMVersionStringFromLMVersion(int32_t version) {
    const long major = MachInfoLMVersionMajorFromLMVersion(version);
    const long minor = MachInfoLMVersionMinorFromLMVersion(version);
    snprintf(gVersionText, sizeof gVersionText, minor > 9 ? "%ld.%ld" : "%ld.0%ld", major, minor);
    return gVersionText;
}

const char *MachInfoLMVersionString(const char *machine) {
    return MachInfoLMVersionStringFromLMVersion(versionOf(machine));
}

BOOL MachInfoFind(const char *machine) {
    if (machine == nullptr) return trace.fault(FALSE, kIdBadArgument, 0, "MachInfoFind: null machine name");
    if (isLocal(machine)) {
        trace(kIdFind, 0, 2, "Always have details for local machine");
        return TRUE;
    }
    if (!gRequestType.declare() || !gResponseType.declare()) return FALSE;
    auto *request = gRequestType.newInstance(MemGetDefaultPoolId());
    request->pszMachine = StrDuplicateIntoPool(machine, MemGetDefaultPoolId());
    const BOOL sent = MsgSendObject(MsgNetMgrAddress(), NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG, request);
    ObjReleaseInternal(&request);
    if (!sent) {
        trace(kIdFind, 0, 2, "Failed to send request to network manager");
        return FALSE;
    }
    MSG_MESSAGE *reply = nullptr;
    if (!MsgWaitMessageWithTimeout(&reply, MsgNetMgrAddress(), NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG,
                                   nullptr)) {
        trace(kIdFind, 0, 2, "Failed to get response from network manager");
        return FALSE;
    }
    void *response = nullptr;
    const BOOL sound = MsgGetObjectInternal(&response, reply, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MAGIC);
    ObjReleaseInternal(&response);
    ObjReleaseInternal(&reply);
    if (!sound) {
        trace(kIdFind, 0, 2, "Bad response object");
        return FALSE;
    }
    trace(kIdFind, 0, 2, "Have info on machine '%s'", machine);
    return TRUE;
}
