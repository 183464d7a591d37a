// manager.cpp - the process manager's state and its answers (manager.h).
#include "manager.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "messages/msgpmgr.h"

namespace fhpmgr {
namespace {

constexpr const char *kTag = "PMGR           ";
constexpr const char *kProcmgrFile = "procmgr.cfg";

void trace(int32_t id, int32_t level, const char *format, ...) __attribute__((format(printf, 3, 4)));
void trace(int32_t id, int32_t level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TraceMessageVa(kTag, id, 0, level, format, arguments);
    va_end(arguments);
}

int32_t le32(const unsigned char *p) {
    return static_cast<int32_t>(uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24);
}

void putLe32(unsigned char *p, int32_t value) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(static_cast<uint32_t>(value) >> (8 * i));
}

// The header fields of a packet image that the manager reads.
constexpr size_t kImageRoute = 0, kImageSource = 8;

bool sameFormat(const void *object, const char *format) {
    const char *has = object != nullptr ? ObjGetFormat(ObjGetTemplateFromObject(object)) : nullptr;
    return has != nullptr && strcmp(has, format) == 0;
}

// The body of a packet, read only when its magic and whole format are T's
// (then it is laid out as T); held for the scope.
template <typename T> class Body {
public:
    Body(const MSG_PACKET *packet, uint32_t magic, const char *format) {
        void *body = nullptr;
        if (!MsgObjectFromPacketInternal(&body, packet, magic) || body == nullptr) return;
        if (sameFormat(body, format))
            body_ = static_cast<T *>(body);
        else
            ObjReleaseInternal(&body);
    }
    ~Body() { ObjReleaseInternal(&body_); }
    Body(const Body &) = delete;
    Body &operator=(const Body &) = delete;
    explicit operator bool() const { return body_ != nullptr; }
    T *operator->() const { return body_; }

private:
    T *body_ = nullptr;
};

// A template the manager makes objects of, or reads them as.
template <typename T> ObjectTemplate *declare(uint32_t magic, const char *format, bool received) {
    ObjectTemplate *made = nullptr;
    if (ObjTemplateCreateInternal(&made, sizeof(T), magic, format, nullptr) && received)
        ObjTemplateSetReceivable(made, nullptr);
    return made;
}

struct Templates {
    ObjectTemplate *attach = declare<PMGR_ATTACH_TO_UNIX_SHM>(PMGR_ATTACH_TO_UNIX_SHM_MAGIC,
                                                              PMGR_ATTACH_TO_UNIX_SHM_FORMAT, false);
    ObjectTemplate *died = declare<PMGR_PROCESS_DIED>(PMGR_PROCESS_DIED_MAGIC, PMGR_PROCESS_DIED_FORMAT, false);
    ObjectTemplate *state = declare<PMGR_GET_PROCESS_STATE_RETURN>(PMGR_GET_PROCESS_STATE_RETURN_MAGIC,
                                                                   PMGR_GET_PROCESS_STATE_RETURN_FORMAT, false);
    ObjectTemplate *locale = declare<PMGR_SET_LOCALE>(PMGR_SET_LOCALE_MAGIC, PMGR_SET_LOCALE_FORMAT, false);
    ObjectTemplate *status = declare<PMGR_PROCESS_STATUS>(PMGR_PROCESS_STATUS_MAGIC, PMGR_PROCESS_STATUS_FORMAT, true);
    ObjectTemplate *initial = declare<PMGR_PROCESS_INITIAL_STATUS>(PMGR_PROCESS_INITIAL_STATUS_MAGIC,
                                                                   PMGR_PROCESS_INITIAL_STATUS_FORMAT, true);
};

const Templates &templates() {
    static const Templates made;
    return made;
}

// The process id that an address of this machine names; 0 for none.
int32_t localProcess(const void *address) {
    if (address == nullptr || !ObjCheckTypeInternal(address, MSG_ADDRESS_MAGIC) || MsgIsAChannel(address) ||
        !MsgIsLocalMachine(address))
        return 0;
    return MsgGetProcessId(address);
}

MSG_ADDRESS *addressOf(int32_t id) {
    MSG_ADDRESS *address = nullptr;
    MsgCreateAddress(&address, SysLocalMachineName(), id);
    return address;
}

} // namespace

const Manager::Row Manager::kRows[] = {
    {PMGR_PROCESS_INITIAL_STATUS_MSG, &Manager::initialStatus},
    {PMGR_PROCESS_STATUS_MSG, &Manager::status},
    {PMGR_CHANGE_FROM_READY_MSG, &Manager::changeFromReady},
    {PMGR_START_OF_DAY_READY_MSG, &Manager::absorb},
    {PMGR_GET_PROCESS_STATE_MSG, &Manager::getState},
    {PMGR_KILL_PROCESS_MSG, &Manager::killProcess},
    {PMGR_NOTIFY_ON_DEATH_MSG, &Manager::notifyOnDeath},
    {PMGR_CANCEL_NOTIFY_ON_DEATH_MSG, &Manager::cancelNotify},
    {PMGR_CONNECTION_DROPPED_MSG, &Manager::connectionDropped},
};

Manager::Manager(int32_t graceMilliseconds, std::string locale)
    : graceMilliseconds_(graceMilliseconds), locale_(std::move(locale)) {}

Manager::~Manager() {
    void *address = main_;
    if (main_ != nullptr) ShmDetach(&address);
    address = table_;
    if (table_ != nullptr) ShmDetach(&address);
    if (mainId_ != -1) ShmFree(&mainId_);
    if (tableId_ != -1) ShmFree(&tableId_);
}

unsigned char *Manager::slotAt(int slot) const {
    return table_ + PMGR_TABLE_HEAD_BYTES + static_cast<size_t>(slot) * PMGR_TABLE_SLOT_BYTES;
}

unsigned char *Manager::entryAt(int slot) const {
    return main_ + PMGR_MAIN_ENTRIES + static_cast<size_t>(slot) * PMGR_ENTRY_BYTES;
}

void Manager::putWord(unsigned char *at, int32_t value) { memcpy(at, &value, sizeof value); }

int32_t Manager::getWord(const unsigned char *at) {
    int32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

bool Manager::open() {
    (void)templates();
    void *main = nullptr, *table = nullptr;
    if (!ShmAllocate(&mainId_, PMGR_MAIN_BYTES) || !ShmAllocate(&tableId_, PMGR_TABLE_BYTES) ||
        !ShmAttach(&main, mainId_) || !ShmAttach(&table, tableId_)) {
        trace(1, -1, "Failed to make the shared memory of the process table");
        return false;
    }
    main_ = static_cast<unsigned char *>(main);
    table_ = static_cast<unsigned char *>(table);
    memset(main_, 0, PMGR_MAIN_BYTES);
    memset(table_, 0, PMGR_TABLE_BYTES);
    putWord(table_ + PMGR_TABLE_HEAD_MAGIC, static_cast<int32_t>(PMGR_TABLE_MAGIC));
    putWord(table_ + PMGR_TABLE_HEAD_SLOTS, PMGR_TABLE_SLOTS);
    putWord(table_ + PMGR_TABLE_HEAD_SLOT_BYTES, PMGR_TABLE_SLOT_BYTES);
    putWord(table_ + PMGR_TABLE_HEAD_TIME, 0);
    putWord(table_ + PMGR_TABLE_HEAD_MANAGER, static_cast<int32_t>(getpid()));
    for (int slot = 0; slot < PMGR_TABLE_SLOTS; ++slot)
        putWord(slotAt(slot) + PMGR_SLOT_ENTRY, static_cast<int32_t>(entryAt(slot) - main_));
    // This machine's clock is the system's clock until a time source says
    // otherwise: a difference of 0, valid, named after the machine.
    const char *name = SysLocalMachineName();
    strncpy(reinterpret_cast<char *>(main_ + 12), name != nullptr ? name : "", PMGR_TIME_AREA_BYTES - 13);
    touchTime();
    return true;
}

void Manager::touchTime() {
    const int64_t difference = 0;
    memcpy(main_ + 0, &difference, sizeof difference);
    putWord(main_ + 8, 1);
}

int Manager::slotOf(int32_t id) const {
    for (int slot = 0; id != 0 && slot < PMGR_TABLE_SLOTS; ++slot)
        if (processes_[slot].id == id) return slot;
    return -1;
}

int Manager::freeSlot() const {
    for (int slot = 0; slot < PMGR_TABLE_SLOTS; ++slot)
        if (processes_[slot].id == 0) return slot;
    return -1;
}

int32_t Manager::newId() const {
    int32_t id = PMGR_FIRST_ADOPTED_ID;
    while (slotOf(id) != -1) ++id;
    return id;
}

void Manager::setState(int slot, int32_t state) {
    unsigned char *at = slotAt(slot);
    putWord(at + PMGR_SLOT_STATE, state);
    putWord(table_ + PMGR_TABLE_HEAD_GENERATION, getWord(table_ + PMGR_TABLE_HEAD_GENERATION) + 1);
}

// ---- Starting programs ----

bool Manager::start(const char *name, int32_t id) {
    StanzaKey *key = nullptr;
    if (!CfgGetKey("programs.cfg", name, "unix", &key) || key->valueCount < 1) {
        trace(2, -1, "No program for '%s' in programs.cfg", name);
        StnzReleaseKey(&key);
        return false;
    }
    char *path = PathHomeBuild(key->values[0], nullptr);
    StnzReleaseKey(&key);
    const int slot = id > 0 && slotOf(id) == -1 ? freeSlot() : -1;
    if (path == nullptr || slot == -1 || access(path, X_OK) != 0) {
        trace(3, -1, "Can't start '%s' as process %ld", name, static_cast<long>(id));
        MemFreeInternal(&path);
        return false;
    }
    char idText[16];
    snprintf(idText, sizeof idText, "%ld", static_cast<long>(id));
    const char *base = strrchr(path, '/') != nullptr ? strrchr(path, '/') + 1 : path;
    const pid_t pid = fork();
    if (pid == 0) {
        char *const argv[] = {const_cast<char *>(base), idText, nullptr};
        execv(path, argv);
        _exit(127);
    }
    MemFreeInternal(&path);
    if (pid < 0) {
        trace(4, -1, "Failed to fork child process: %s", strerror(errno));
        return false;
    }
    processes_[slot] = {id, pid, true, 0, {}, name};
    unsigned char *at = slotAt(slot);
    putWord(at + PMGR_SLOT_PROCESS, id);
    putWord(at + PMGR_SLOT_PID, static_cast<int32_t>(pid));
    putWord(at + PMGR_SLOT_FLAGS, static_cast<int32_t>(PMGR_SLOT_FLAG_CHILD));
    setState(slot, PROC_STATE_CREATING);
    trace(5, 0, "Started '%s' as process %ld, pid %ld", name, static_cast<long>(id), static_cast<long>(pid));
    return true;
}

void Manager::startOfDay() {
    LIST *stanzas = nullptr;
    if (!CfgGetStanzaList(&stanzas, kProcmgrFile)) return;
    struct Entry {
        int32_t order;
        const Stanza *stanza;
    };
    std::vector<Entry> day;
    for (const LISTNODE *node = stanzas->oFirst; node != nullptr; node = node->oNext) {
        const auto *stanza = static_cast<const Stanza *>(ObjGetStanza(node->oItem));
        if (stanza == nullptr || stanza->category == nullptr || StrCompareNoCase(stanza->category, "Start of Day") != 0)
            continue;
        int32_t order = 0;
        StnzGetInteger(stanza, "Run order", 0, &order);
        day.push_back({order, stanza});
    }
    std::stable_sort(day.begin(), day.end(), [](const Entry &a, const Entry &b) { return a.order < b.order; });
    for (const Entry &entry : day) {
        int32_t id = 0;
        StnzGetInteger(entry.stanza, "Process Id", 0, &id);
        start(entry.stanza->title, id > 0 ? id : newId());
    }
    ObjReleaseInternal(&stanzas);
}

// ---- Messages ----

void Manager::handle(MSG_PACKET **packet) {
    const int32_t type = MsgPacketMsgType(*packet);
    const auto *image = static_cast<const unsigned char *>((*packet)->oImage.pData);
    const MsgPacketAddress from{le32(image + kImageSource), le32(image + kImageSource + 4)};
    const Row *row = std::find_if(std::begin(kRows), std::end(kRows), [type](const Row &r) { return r.type == type; });
    if (row != std::end(kRows))
        (this->*row->handler)(*packet, from);
    else
        trace(6, 1, "Ignored message %ld from %ld:%ld", static_cast<long>(type), static_cast<long>(from.iMachine),
              static_cast<long>(from.iProcess));
    ObjReleaseInternal(packet);
}

bool Manager::sendTo(const MsgPacketAddress &to, int32_t route, int32_t type, void *body) {
    MSG_ADDRESS *destination = nullptr;
    MSG_PACKET *packet = nullptr;
    const bool made = MsgAddressFromPacketAddress(&destination, &to) &&
                      MsgCreatePacket(&packet, destination, MsgLocalAddress(), type, body);
    ObjReleaseInternal(&destination);
    ObjReleaseInternal(&body);
    if (!made) return false;
    // An adopted process is reached through its connection until it has
    // its id.
    if (route < 0) putLe32(static_cast<unsigned char *>(packet->oImage.pData) + kImageRoute, route);
    return MsgDispatch(&packet);
}

void Manager::layOut(int slot, int32_t id, const PMGR_PROCESS_STATUS &status, uint32_t flags) {
    Process &process = processes_[slot];
    unsigned char *entry = entryAt(slot);
    memset(entry, 0, PMGR_ENTRY_HEAD_BYTES);
    const size_t titleLength = std::min<size_t>(process.name.size(), 79);
    memcpy(entry, process.name.data(), titleLength);
    // An empty ring, valid as it stands: its size, no record yet.
    TraceBuffer head{PMGR_ENTRY_RING_BYTES, -1, 0, 0};
    memcpy(entry + PMGR_ENTRY_HEAD_BYTES, &head, sizeof head);
    int32_t progress = 0;
    if (status.bWantsProgress) {
        progress = PMGR_MAIN_PROGRESS + slot * PMGR_PROGRESS_BYTES;
        memset(main_ + progress, 0, PMGR_PROGRESS_BYTES);
        putWord(main_ + progress, PMGR_PROGRESS_BYTES);
    }
    if (status.iPid > 0 && !process.child) process.pid = status.iPid;
    process.id = id;
    unsigned char *at = slotAt(slot);
    putWord(at + PMGR_SLOT_PROCESS, id);
    putWord(at + PMGR_SLOT_PID, static_cast<int32_t>(process.pid));
    putWord(at + PMGR_SLOT_PROGRESS, progress);
    putWord(at + PMGR_SLOT_FLAGS, static_cast<int32_t>(flags | (process.child ? PMGR_SLOT_FLAG_CHILD : 0)));
    setState(slot, PROC_STATE_CREATING);
}

bool Manager::sendAttach(int slot, int32_t route) {
    const MsgPacketAddress to{MSG_MACHINE_LOCAL, processes_[slot].id};
    if (!locale_.empty()) {
        auto *locale = static_cast<PMGR_SET_LOCALE *>(ObjTemplateNewInstanceFromPool(templates().locale, nullptr));
        locale->pszLocale = StrDuplicateIntoPool(locale_.c_str(), nullptr);
        sendTo(to, route, PMGR_SET_LOCALE_MSG, locale);
    }
    auto *attach = static_cast<PMGR_ATTACH_TO_UNIX_SHM *>(ObjTemplateNewInstanceFromPool(templates().attach, nullptr));
    const unsigned char *at = slotAt(slot);
    *attach = {mainId_, tableId_, getWord(at + PMGR_SLOT_ENTRY), getWord(at + PMGR_SLOT_PROGRESS), 0};
    return sendTo(to, route, PMGR_ATTACH_TO_SHM_MSG, attach);
}

void Manager::initialStatus(const MSG_PACKET *packet, const MsgPacketAddress &from) {
    Body<PMGR_PROCESS_INITIAL_STATUS> initial(packet, PMGR_PROCESS_INITIAL_STATUS_MAGIC,
                                              PMGR_PROCESS_INITIAL_STATUS_FORMAT);
    const void *inner = initial ? initial->oStatus : nullptr;
    if (from.iMachine != MSG_MACHINE_LOCAL || inner == nullptr ||
        !ObjCheckTypeInternal(inner, PMGR_PROCESS_STATUS_MAGIC) || !sameFormat(inner, PMGR_PROCESS_STATUS_FORMAT)) {
        trace(7, 0, "Bad initial status from %ld:%ld", static_cast<long>(from.iMachine),
              static_cast<long>(from.iProcess));
        return;
    }
    const auto &status = *static_cast<const PMGR_PROCESS_STATUS *>(inner);
    const int32_t id = from.iProcess > 0 ? from.iProcess : newId();
    int slot = slotOf(id);
    if (slot == -1 && (slot = freeSlot()) != -1) processes_[slot] = Process{};
    if (slot == -1 || id < 0) {
        trace(8, -1, "No room in the process table for process %ld", static_cast<long>(id));
        return;
    }
    uint32_t flags = PMGR_SLOT_FLAG_ATTACHED;
    if (initial->iFlags & PMGR_INITIAL_NEW_STYLE_TASKS) flags |= PMGR_SLOT_FLAG_NEW_TASKS;
    layOut(slot, id, status, flags);
    const int32_t route = from.iProcess == 0 ? le32(static_cast<const unsigned char *>(packet->oImage.pData)) : 0;
    if (from.iProcess == 0) trace(9, 0, "Adopting a process as %ld", static_cast<long>(id));
    if (!sendAttach(slot, route < 0 ? route : 0))
        trace(10, 0, "Failed to send the attach message to process %ld", static_cast<long>(id));
}

void Manager::status(const MSG_PACKET *packet, const MsgPacketAddress &from) {
    Body<PMGR_PROCESS_STATUS> status(packet, PMGR_PROCESS_STATUS_MAGIC, PMGR_PROCESS_STATUS_FORMAT);
    const int slot = from.iMachine == MSG_MACHINE_LOCAL ? slotOf(from.iProcess) : -1;
    if (!status || slot == -1) return;
    unsigned char *at = slotAt(slot);
    putWord(at + PMGR_SLOT_STATUSES, getWord(at + PMGR_SLOT_STATUSES) + 1);
    setState(slot, status->iState);
    trace(11, 1, "Process %ld is %s", static_cast<long>(from.iProcess), ProcProcessStateDescription(status->iState));
}

void Manager::changeFromReady(const MSG_PACKET *, const MsgPacketAddress &from) {
    const int slot = from.iMachine == MSG_MACHINE_LOCAL ? slotOf(from.iProcess) : -1;
    if (slot != -1) setState(slot, PROC_STATE_BUSY);
}

void Manager::absorb(const MSG_PACKET *, const MsgPacketAddress &from) {
    trace(12, 1, "Start of day ready from %ld", static_cast<long>(from.iProcess));
}

void Manager::getState(const MSG_PACKET *packet, const MsgPacketAddress &from) {
    Body<PMGR_GET_PROCESS_STATE> asked(packet, PMGR_GET_PROCESS_STATE_MAGIC, PMGR_GET_PROCESS_STATE_FORMAT);
    const int32_t id = asked ? localProcess(asked->oAddress) : 0;
    const int slot = slotOf(id);
    auto *reply = static_cast<PMGR_GET_PROCESS_STATE_RETURN *>(
        ObjTemplateNewInstanceFromPool(templates().state, nullptr));
    reply->oAddress = addressOf(id);
    reply->iState = slot != -1 ? getWord(slotAt(slot) + PMGR_SLOT_STATE) : PROC_STATE_UNKNOWN;
    sendTo(from, 0, PMGR_GET_PROCESS_STATE_RETURN_MSG, reply);
}

void Manager::killProcess(const MSG_PACKET *packet, const MsgPacketAddress &) {
    Body<PMGR_KILL_PROCESS> kill(packet, PMGR_KILL_PROCESS_MAGIC, PMGR_KILL_PROCESS_FORMAT);
    const int slot = kill ? slotOf(localProcess(kill->oAddress)) : -1;
    if (slot == -1 || processes_[slot].killStage != 0) return;
    Process &process = processes_[slot];
    trace(13, 0, "Asking process %ld to die", static_cast<long>(process.id));
    sendTo({MSG_MACHINE_LOCAL, process.id}, 0, PMGR_KILL_YOURSELF_MSG, nullptr);
    process.killStage = process.pid > 0 ? 1 : 0;
    process.killAt = Clock::now() + std::chrono::milliseconds(graceMilliseconds_);
}

void Manager::notifyOnDeath(const MSG_PACKET *packet, const MsgPacketAddress &from) {
    Body<PMGR_NOTIFY_ON_DEATH> watch(packet, PMGR_NOTIFY_ON_DEATH_MAGIC, PMGR_NOTIFY_ON_DEATH_FORMAT);
    const int32_t id = watch ? localProcess(watch->oAddress) : 0;
    if (id <= 0) return;
    const bool known = std::any_of(watches_.begin(), watches_.end(), [&](const Watch &w) {
        return w.watched == id && w.watcher.iMachine == from.iMachine && w.watcher.iProcess == from.iProcess;
    });
    if (known) return;
    watches_.push_back({from, id});
    // A process that is not there has died already, as far as the watcher
    // can tell.
    if (slotOf(id) == -1) died(id);
}

void Manager::cancelNotify(const MSG_PACKET *packet, const MsgPacketAddress &from) {
    Body<PMGR_CANCEL_NOTIFY_ON_DEATH> cancel(packet, PMGR_CANCEL_NOTIFY_ON_DEATH_MAGIC,
                                             PMGR_CANCEL_NOTIFY_ON_DEATH_FORMAT);
    const int32_t id = cancel ? localProcess(cancel->oAddress) : 0;
    std::erase_if(watches_, [&](const Watch &w) {
        return w.watched == id && w.watcher.iMachine == from.iMachine && w.watcher.iProcess == from.iProcess;
    });
}

void Manager::connectionDropped(const MSG_PACKET *packet, const MsgPacketAddress &from) {
    void *word = nullptr;
    if (from.iProcess == MSG_PROCESS_COMMMGR && MsgObjectFromPacketInternal(&word, packet, OBJ_INTEGER_MAGIC) &&
        sameFormat(word, "i;"))
        died(ObjGetInteger(word));
    ObjReleaseInternal(&word);
}

// ---- Deaths and the periodic work ----

void Manager::died(int32_t id) {
    const int slot = slotOf(id);
    if (slot != -1) {
        trace(14, 0, "Process %ld has gone", static_cast<long>(id));
        processes_[slot] = Process{};
        const int32_t entry = getWord(slotAt(slot) + PMGR_SLOT_ENTRY);
        memset(slotAt(slot), 0, PMGR_TABLE_SLOT_BYTES);
        putWord(slotAt(slot) + PMGR_SLOT_ENTRY, entry);
        putWord(table_ + PMGR_TABLE_HEAD_GENERATION, getWord(table_ + PMGR_TABLE_HEAD_GENERATION) + 1);
    }
    std::vector<MsgPacketAddress> watchers;
    std::erase_if(watches_, [&](const Watch &w) {
        if (w.watched == id) watchers.push_back(w.watcher);
        return w.watched == id || (w.watcher.iMachine == MSG_MACHINE_LOCAL && w.watcher.iProcess == id);
    });
    for (const MsgPacketAddress &watcher : watchers) {
        auto *notice = static_cast<PMGR_PROCESS_DIED *>(ObjTemplateNewInstanceFromPool(templates().died, nullptr));
        notice->oAddress = addressOf(id);
        sendTo(watcher, 0, PMGR_PROCESS_DIED_MSG, notice);
    }
}

void Manager::pass() {
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;)
        for (const Process &process : processes_)
            if (process.child && process.pid == pid) {
                died(process.id);
                break;
            }
    const auto now = Clock::now();
    for (Process &process : processes_) {
        if (process.killStage == 0 || now < process.killAt) continue;
        trace(15, 0, "Process %ld did not die: %s", static_cast<long>(process.id),
              process.killStage == 1 ? "SIGTERM" : "SIGKILL");
        kill(process.pid, process.killStage == 1 ? SIGTERM : SIGKILL);
        process.killAt = now + std::chrono::milliseconds(graceMilliseconds_);
        process.killStage = process.killStage == 1 ? 2 : 3;
        if (process.killStage == 3) process.killStage = 0; // nothing is left to send
    }
    touchTime();
}

int32_t Manager::nextWait() const {
    int64_t wait = 250;
    const auto now = Clock::now();
    for (const Process &process : processes_)
        if (process.killStage != 0)
            wait = std::min<int64_t>(
                wait, std::max<int64_t>(0, std::chrono::duration_cast<std::chrono::milliseconds>(process.killAt - now)
                                               .count()));
    return static_cast<int32_t>(wait);
}

} // namespace fhpmgr
