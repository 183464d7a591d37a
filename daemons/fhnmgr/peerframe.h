// peerframe.h - what two network managers say to each other, and the
// bounded reader of what a peer sends.
//
// One TCP connection carries frames in both directions, every integer
// 32-bit little-endian:
//
//   length   bytes that follow: the kind and the payload
//   kind     1 hello, 2 packet, 3 details asked, 4 details
//   payload  hello:   the sender's machine name
//            packet:  name length (1 byte), source machine name, name
//                     length, destination machine name, the packet image
//                     (msgpacket.h) as its sender's manager had it
//            details: per setting, its index in kDetailKeys (1 byte), the
//                     value length (2 bytes) and the value
//
// Machine ids never cross: they belong to the file of each machine, so a
// packet travels with names and each manager maps them to its own ids.
//
// Nothing a peer sends is trusted. A frame is at most kMaxFrame bytes, and
// the reader's buffer grows with what arrived, never with what a length
// declares. A name is 1 to kMaxName printable bytes that read back as
// themselves as a stanza title; an image holds at least
// MSG_PACKET_MINIMUM_SIZE bytes and its total and frame length agree with
// its size. A frame that fails any of these breaks the connection. A value
// of the details is kept only when it reads back as itself as a stanza
// key's one value, of its setting's type.
#ifndef FHNMGR_PEERFRAME_H
#define FHNMGR_PEERFRAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fhnmgr {

enum class Kind : uint32_t { kHello = 1, kPacket = 2, kDetailsAsked = 3, kDetails = 4 };

// The largest frame: a packet of 64 MiB and its names.
inline constexpr uint32_t kMaxFrame = (uint32_t{64} << 20) + 1024;
inline constexpr size_t kMaxName = 255;
inline constexpr size_t kMaxValue = 1024;

// The settings a machine tells its peers about itself, as the keys of its
// stanza in "machines.dat"; the last two hold integers, "Server" a boolean.
inline constexpr std::array<const char *, 5> kDetailKeys = {"Type", "Server", "Description", "LMVersion",
                                                            "LMBuildLevel"};
using Details = std::array<std::optional<std::string>, kDetailKeys.size()>;

int32_t getLe32(const unsigned char *p);
void putLe32(unsigned char *p, int32_t value);

// The frames, appended to out.
void encodeHello(std::string &out, std::string_view name);
void encodePacket(std::string &out, std::string_view source, std::string_view destination, const void *image,
                  size_t size);
void encodeDetailsAsked(std::string &out);
void encodeDetails(std::string &out, const Details &details);

struct Frame {
    Kind kind;
    std::string_view payload; // valid until the reader is next changed
};

struct PacketFrame {
    std::string_view source, destination; // machine names
    std::string_view image;
};

// Payloads read; each false for one that breaks the rules above. A value
// of the details that doesn't read back is left out and counted in
// *refused; the others stand.
bool decodeHello(std::string_view payload, std::string_view *name);
bool decodePacket(std::string_view payload, PacketFrame *packet);
bool decodeDetails(std::string_view payload, Details *details, size_t *refused);

// A name that can stand as a stanza title and reads back as itself.
bool nameReadsBack(std::string_view name);
// A value of the setting at index that reads back as itself, of its type.
bool valueReadsBack(size_t index, std::string_view value);

class PeerReader {
public:
    enum class Result { kMore, kFrame, kBroken };
    // Adds bytes that arrived.
    void append(const void *data, size_t size);
    // The next whole frame in *frame; kBroken for a length out of bounds or
    // an unknown kind (the reader stays broken).
    Result next(Frame *frame);
    // Bytes held: a partial frame and whole ones not yet taken.
    size_t held() const { return buffer_.size() - start_; }

private:
    std::vector<unsigned char> buffer_;
    size_t start_ = 0;
    bool broken_ = false;
};

} // namespace fhnmgr

#endif // FHNMGR_PEERFRAME_H
