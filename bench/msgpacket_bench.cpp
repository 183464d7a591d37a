// msgpacket_bench.cpp - what the packet form of a message costs, in one run:
//
// - the message-like object of the serialiser's benchmark (a list of 100
//   records of two integers, a 64-bit integer and a 16-byte string) made
//   into a packet and read back into a message (MsgCreatePacket,
//   MsgMessageFromPacket), beside the bare body framed and read back
//   (ObjSerializeToBuffer into a new buffer, ObjReconstructFromBytes): what
//   the header, the two addresses and the three objects around the body add;
// - the same round trip beside a peer serialiser that packs the same values
//   behind a 192-byte header and unpacks them into its own tree of values;
// - MsgMachineNameToId of the last machine of a file of 50, which every send
//   to another machine makes, beside a plain scan of the same file with
//   stdio for the same line.
#include <benchmark/benchmark.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/fhcore.h"
#include "ratios.h"
#include "records.h"

namespace {

constexpr int kMachines = 50;
constexpr int32_t kType = 4000;

LIST *gMessage = nullptr;
std::string gMachinesPath;

// A home with a machines file of kMachines stanzas, each as the network
// manager writes it.
void makeHome() {
    char pattern[] = "/tmp/fhcore-msgpacket-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) exit(1);
    setenv("FHHOME", pattern, 1);
    mkdir((std::string(pattern) + "/etc").c_str(), 0755);
    gMachinesPath = std::string(pattern) + "/etc/machines.dat";
    FILE *file = fopen(gMachinesPath.c_str(), "w");
    for (int i = 0; i < kMachines; ++i)
        fprintf(file, "[machine%02d]\nId=%d\nServer=false\nContact Address=10.0.%d.1\nCan Tunnel=false\n\n", i,
                i + 2, i);
    fclose(file);
}

void packetRoundTrip(benchmark::State &state) {
    for (auto _ : state) {
        MSG_PACKET *packet = nullptr;
        MSG_MESSAGE *message = nullptr;
        if (!MsgCreatePacket(&packet, MsgLocalAddress(), MsgLocalAddress(), kType, gMessage) ||
            !MsgMessageFromPacket(&message, packet))
            state.SkipWithError("packet failed");
        ObjReleaseInternal(&message);
        ObjReleaseInternal(&packet);
    }
}

void bareRoundTrip(benchmark::State &state) {
    for (auto _ : state) {
        ObjBufferDescriptor *frame = nullptr;
        void *body = nullptr;
        ObjBufferDescriptorCreate(&frame, nullptr, 0, 0);
        if (!ObjSerializeToBuffer(gMessage, kType, frame) ||
            !ObjReconstructFromBytes(&body, frame->Buffer + 8, frame->Used - 8))
            state.SkipWithError("frame failed");
        ObjReleaseInternal(&body);
        ObjBufferDescriptorFree(&frame);
    }
}

// The peer's values behind room for the same header.
void pack(msgpack_sbuffer *buffer) {
    static const char header[MSG_PACKET_HEADER_SIZE] = {};
    msgpack_sbuffer_write(buffer, header, sizeof header);
    records::pack(buffer, gMessage);
}

void peerRoundTrip(benchmark::State &state) {
    msgpack_unpacked result;
    msgpack_unpacked_init(&result);
    for (auto _ : state) {
        msgpack_sbuffer buffer;
        msgpack_sbuffer_init(&buffer);
        pack(&buffer);
        size_t offset = MSG_PACKET_HEADER_SIZE;
        if (msgpack_unpack_next(&result, buffer.data, buffer.size, &offset) != MSGPACK_UNPACK_SUCCESS)
            state.SkipWithError("peer failed");
        benchmark::DoNotOptimize(result.data.via.array.ptr);
        msgpack_sbuffer_destroy(&buffer);
    }
    msgpack_unpacked_destroy(&result);
}

void machineId(benchmark::State &state) {
    for (auto _ : state) {
        int32_t id = 0;
        if (!MsgMachineNameToId(&id, "machine49") || id != 51) state.SkipWithError("no id");
    }
}

void plainScan(benchmark::State &state) {
    for (auto _ : state) {
        FILE *file = fopen(gMachinesPath.c_str(), "r");
        char line[256];
        bool inStanza = false;
        int id = 0;
        while (id == 0 && fgets(line, sizeof line, file) != nullptr) {
            if (line[0] == '[') inStanza = strncmp(line, "[machine49]", 11) == 0;
            if (inStanza && strncmp(line, "Id=", 3) == 0) id = atoi(line + 3);
        }
        fclose(file);
        if (id != 51) state.SkipWithError("no id");
    }
}

constexpr bench::Entry kBenchmarks[] = {
    {"packet and back, 100 records", packetRoundTrip},
    {"bare frame and back, same body", bareRoundTrip},
    {"peer behind 192 bytes and back", peerRoundTrip},
    {"MsgMachineNameToId, 50 machines", machineId},
    {"stdio scan for the same Id", plainScan},
};

constexpr bench::Comparison kComparisons[] = {
    {"packet and back, 100 records", "bare frame and back, same body", bench::Aim::RatioAtMost, 1.1},
    {"packet and back, 100 records", "peer behind 192 bytes and back", bench::Aim::RatioAtMost, 1.0},
    {"MsgMachineNameToId, 50 machines", "stdio scan for the same Id", bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) {
    makeHome();
    if (!ContextInitialize()) return 1;
    gMessage = records::make();
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    ObjReleaseInternal(&gMessage);
    ContextReleaseThread();
    return status;
}
