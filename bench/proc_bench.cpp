// proc_bench - what a process pays for its entry in the process table:
//   - a pool allocation and free, and an object's creation and release,
//     with the counters copied into an entry in a shared segment beside the
//     same with no entry set (the aim: at most 1.1 times);
//   - the start-up of a managed process under fhpmgr, from fork and exec to
//     its first state in the table (the demo's worker, examples/pmgr_table),
//     beside a fork and exec of /bin/true waited for, the bare cost of
//     starting any program. Reported in milliseconds.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "core/fhcore.h"
#include "messages/pmgrtable.h"
#include "ratios.h"

namespace {

unsigned char *gEntry = nullptr;

// Runs body with the counters going to the shared entry or to none.
template <bool kAttached, typename Body> void withEntry(benchmark::State &state, Body body) {
    ProcSetDetails(kAttached ? gEntry : nullptr);
    for (auto _ : state) body();
    ProcSetDetails(nullptr);
}

template <bool kAttached> void allocateFree(benchmark::State &state) {
    withEntry<kAttached>(state, [] {
        void *block = MemAllocateFromPool(48, nullptr);
        benchmark::DoNotOptimize(block);
        MemFreeInternal(&block);
    });
}

template <bool kAttached> void objectCreateRelease(benchmark::State &state) {
    withEntry<kAttached>(state, [] {
        void *object = ObjIntegerNew(7);
        benchmark::DoNotOptimize(object);
        ObjReleaseInternal(&object);
    });
}

// ---- Start-up under the managers ----

struct Managers {
    std::string home;
    pid_t cmgr = -1, pmgr = -1;
    const unsigned char *table = nullptr;
    int32_t nextId = 200;
};
Managers gManagers;

pid_t spawn(const std::string &path, const std::string &argument, int output) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (output != -1) dup2(output, STDOUT_FILENO);
        execl(path.c_str(), path.c_str(), argument.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

// Starts a manager and gives its ready line.
std::string startManager(const char *name, const char *id, pid_t *pid) {
    int ends[2];
    if (pipe(ends) != 0) return "";
    *pid = spawn(std::string(FHCORE_BIN_DIR) + "/" + name, id, ends[1]);
    close(ends[1]);
    std::string line;
    char c = 0;
    while (read(ends[0], &c, 1) == 1 && c != '\n') line += c;
    close(ends[0]);
    return line;
}

bool startManagers() {
    namespace fs = std::filesystem;
    char pattern[] = "/tmp/fhcore-procbench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return false;
    Managers &m = gManagers;
    m.home = pattern;
    setenv("FHHOME", pattern, 1);
    if (!ContextInitialize()) return false;
    fs::create_directories(m.home + "/config");
    fs::create_directories(m.home + "/bin");
    fs::copy_file(std::string(FHCORE_BIN_DIR) + "/fhpmgr", m.home + "/bin/fhpmgr");
    int32_t probe = -1, port = 0;
    NetAddressT address{};
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    if (NetOpen(&probe, NET_SOCKET_STREAM) && NetBind(probe, &address) && NetGetLocalAddress(&address, probe))
        port = NetGetIpPort(&address);
    NetClose(&probe);
    std::ofstream(m.home + "/config/configure.cfg") << "[Machine]\nComms TcpPort=" << port << "\n";
    std::ofstream(m.home + "/config/programs.cfg") << "[Process Manager]\nunix=bin/fhpmgr\n";
    startManager("fhcmgr", "2", &m.cmgr);
    long mainId = -1, tableId = -1;
    const std::string ready = startManager("fhpmgr", "1", &m.pmgr);
    if (sscanf(ready.c_str(), "fhpmgr ready: main segment %ld table segment %ld", &mainId, &tableId) != 2) return false;
    void *table = shmat(static_cast<int>(tableId), nullptr, SHM_RDONLY);
    m.table = table != reinterpret_cast<void *>(-1) ? static_cast<const unsigned char *>(table) : nullptr;
    return m.table != nullptr;
}

void stopManagers() {
    Managers &m = gManagers;
    if (m.table != nullptr) shmdt(m.table);
    for (pid_t pid : {m.pmgr, m.cmgr})
        if (pid > 0) kill(pid, SIGTERM), waitpid(pid, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(m.home, ignored);
}

int32_t word(const unsigned char *at) {
    int32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

// Whether process id has told the manager a state after its attach.
bool attached(int32_t id) {
    const unsigned char *table = gManagers.table;
    for (int slot = 0; slot < PMGR_TABLE_SLOTS; ++slot) {
        const unsigned char *at = table + PMGR_TABLE_HEAD_BYTES + slot * PMGR_TABLE_SLOT_BYTES;
        if (word(at + PMGR_SLOT_PROCESS) == id && word(at + PMGR_SLOT_STATE) >= PROC_STATE_WAITING) return true;
    }
    return false;
}

void managedStart(benchmark::State &state) {
    const std::string worker = std::string(FHCORE_BIN_DIR) + "/examples/pmgr_table";
    for (auto _ : state) {
        const int32_t id = gManagers.nextId++;
        const pid_t pid = spawn(worker, std::to_string(id), -1);
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!attached(id) && std::chrono::steady_clock::now() < until) std::this_thread::yield();
        state.PauseTiming();
        if (!attached(id)) state.SkipWithError("the worker did not attach");
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        if (gManagers.nextId > 10000) gManagers.nextId = 200;
        state.ResumeTiming();
    }
}

void forkExecTrue(benchmark::State &state) {
    for (auto _ : state) {
        const pid_t pid = spawn("/bin/true", "", -1);
        waitpid(pid, nullptr, 0);
    }
}

constexpr bench::Entry kBenchmarks[] = {
    {"MemAllocate+free, entry attached", allocateFree<true>},
    {"MemAllocate+free, no entry", allocateFree<false>},
    {"object create+release, entry attached", objectCreateRelease<true>},
    {"object create+release, no entry", objectCreateRelease<false>},
    {"managed start to first state", managedStart, true},
    {"fork+exec /bin/true, waited", forkExecTrue, true},
};

constexpr bench::Comparison kComparisons[] = {
    {"MemAllocate+free, entry attached", "MemAllocate+free, no entry", bench::Aim::RatioAtMost, 1.1},
    {"object create+release, entry attached", "object create+release, no entry", bench::Aim::RatioAtMost, 1.1},
    {"managed start to first state", "fork+exec /bin/true, waited", bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN);
    if (!startManagers()) {
        fprintf(stderr, "proc_bench: the managers did not start\n");
        stopManagers();
        return 1;
    }
    const int segment = shmget(IPC_PRIVATE, PMGR_ENTRY_BYTES, IPC_CREAT | 0600);
    void *base = segment != -1 ? shmat(segment, nullptr, 0) : reinterpret_cast<void *>(-1);
    shmctl(segment, IPC_RMID, nullptr); // gone once detached, whatever happens
    if (base == reinterpret_cast<void *>(-1)) return 1;
    gEntry = static_cast<unsigned char *>(base);
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    shmdt(base);
    ContextReleaseThread();
    stopManagers();
    return status;
}
