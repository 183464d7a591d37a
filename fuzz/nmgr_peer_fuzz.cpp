// What the network manager of another machine sends: the bytes go to the
// peer reader of daemons/fhnmgr in pieces whose sizes the first byte picks,
// and every whole frame is read as its kind says.
//
// No crash, no hang, no leak; the reader holds no more than arrived; a
// frame read is no larger than the bound; a name read stands as a stanza
// title; an image read holds its header and agrees with its own total; the
// details read are each of a setting and read back, and written again they
// read the same.
#include <cstdlib>
#include <cstring>

#include "core/fhcore.h"
#include "leakcheck.h"
#include "peerframe.h"

namespace {

void readFrame(const fhnmgr::Frame &frame) {
    CHECK(frame.payload.size() + 4 <= fhnmgr::kMaxFrame);
    switch (frame.kind) {
    case fhnmgr::Kind::kHello: {
        std::string_view name;
        if (fhnmgr::decodeHello(frame.payload, &name)) CHECK(!name.empty() && name.size() <= fhnmgr::kMaxName);
        break;
    }
    case fhnmgr::Kind::kPacket: {
        fhnmgr::PacketFrame packet;
        if (!fhnmgr::decodePacket(frame.payload, &packet)) break;
        CHECK(packet.image.size() >= MSG_PACKET_MINIMUM_SIZE);
        CHECK(fhnmgr::getLe32(reinterpret_cast<const unsigned char *>(packet.image.data()) + 4) ==
              static_cast<int32_t>(packet.image.size()));
        CHECK(fhnmgr::nameReadsBack(packet.source) && fhnmgr::nameReadsBack(packet.destination));
        break;
    }
    case fhnmgr::Kind::kDetails: {
        fhnmgr::Details details, again;
        size_t refused = 0;
        if (!fhnmgr::decodeDetails(frame.payload, &details, &refused)) break;
        for (size_t i = 0; i < details.size(); ++i) CHECK(!details[i] || fhnmgr::valueReadsBack(i, *details[i]));
        std::string written;
        fhnmgr::encodeDetails(written, details);
        fhnmgr::PeerReader reader;
        reader.append(written.data(), written.size());
        fhnmgr::Frame frame2{};
        CHECK(reader.next(&frame2) == fhnmgr::PeerReader::Result::kFrame);
        CHECK(fhnmgr::decodeDetails(frame2.payload, &again, &refused) && refused == 0 && again == details);
        break;
    }
    case fhnmgr::Kind::kDetailsAsked: break;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ContextInitialize();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 1 << 20) return 0;
    const InUse before;
    {
        const size_t piece = data[0] % 64 + 1;
        fhnmgr::PeerReader reader;
        size_t arrived = 0;
        for (size_t at = 1; at < size; at += piece) {
            const size_t count = std::min(piece, size - at);
            reader.append(data + at, count);
            arrived += count;
            fhnmgr::Frame frame{};
            fhnmgr::PeerReader::Result result;
            while ((result = reader.next(&frame)) == fhnmgr::PeerReader::Result::kFrame) readFrame(frame);
            CHECK(reader.held() <= arrived);
            if (result == fhnmgr::PeerReader::Result::kBroken) break;
        }
    }
    CHECK(!before.leaked());
    return 0;
}
