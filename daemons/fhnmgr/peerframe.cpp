// peerframe.cpp - the frames between network managers (peerframe.h).
#include "peerframe.h"

#include <cstring>

#include "core/fhcore.h"

namespace fhnmgr {
namespace {

constexpr size_t kHeader = 8; // length and kind

void putLe(std::string &out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i) & 0xff));
}

// Opens a frame of kind; close() fills in its length.
size_t open(std::string &out, Kind kind) {
    const size_t at = out.size();
    putLe(out, 0, 4);
    putLe(out, static_cast<uint32_t>(kind), 4);
    return at;
}

void close(std::string &out, size_t at) {
    putLe32(reinterpret_cast<unsigned char *>(out.data() + at), static_cast<int32_t>(out.size() - at - 4));
}

// Takes count bytes off the front of in; false when there are fewer.
bool take(std::string_view &in, size_t count, std::string_view *out) {
    if (in.size() < count) return false;
    *out = in.substr(0, count);
    in.remove_prefix(count);
    return true;
}

bool takeName(std::string_view &in, std::string_view *name) {
    std::string_view length;
    return take(in, 1, &length) && take(in, static_cast<unsigned char>(length[0]), name) && nameReadsBack(*name);
}

// A released string or stanza key, whatever the path out.
struct Text {
    char *p = nullptr;
    ~Text() { MemFreeInternal(&p); }
};
struct Key {
    StanzaKey *p = nullptr;
    ~Key() { StnzReleaseKey(&p); }
};

bool printable(std::string_view text) {
    for (const char c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return false;
    return true;
}

bool integerText(std::string_view value) {
    const std::string text(value);
    int32_t number = 0;
    return StrToInteger(text.c_str(), &number) && std::to_string(number) == text;
}

} // namespace

int32_t getLe32(const unsigned char *p) {
    return static_cast<int32_t>(uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24);
}

void putLe32(unsigned char *p, int32_t value) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(static_cast<uint32_t>(value) >> (8 * i));
}

void encodeHello(std::string &out, std::string_view name) {
    const size_t at = open(out, Kind::kHello);
    out.append(name);
    close(out, at);
}

void encodePacket(std::string &out, std::string_view source, std::string_view destination, const void *image,
                  size_t size) {
    const size_t at = open(out, Kind::kPacket);
    for (const std::string_view name : {source, destination}) {
        putLe(out, static_cast<uint32_t>(name.size()), 1);
        out.append(name);
    }
    out.append(static_cast<const char *>(image), size);
    close(out, at);
}

void encodeDetailsAsked(std::string &out) { close(out, open(out, Kind::kDetailsAsked)); }

void encodeDetails(std::string &out, const Details &details) {
    const size_t at = open(out, Kind::kDetails);
    for (size_t i = 0; i < details.size(); ++i) {
        if (!details[i]) continue;
        putLe(out, static_cast<uint32_t>(i), 1);
        putLe(out, static_cast<uint32_t>(details[i]->size()), 2);
        out.append(*details[i]);
    }
    close(out, at);
}

bool nameReadsBack(std::string_view name) {
    if (name.empty() || name.size() > kMaxName || !printable(name)) return false;
    std::string line(1, '[');
    line.append(name).push_back(']');
    Text category, title;
    return StnzLineToTitle(&category.p, &title.p, line.c_str()) && category.p == nullptr && title.p != nullptr &&
           name == title.p;
}

bool valueReadsBack(size_t index, std::string_view value) {
    if (index >= kDetailKeys.size() || value.size() > kMaxValue || !printable(value)) return false;
    if ((index == 3 || index == 4) && !integerText(value)) return false;
    if (index == 1 && value != "true" && value != "false") return false;
    if (value.empty()) return true; // an empty value removes the key
    const std::string text(value);
    Text escaped;
    escaped.p = StnzEscapeText(text.c_str());
    if (escaped.p == nullptr) return false;
    const std::string line = std::string(kDetailKeys[index]) + "=" + escaped.p;
    Key key;
    return StnzLineToKey(&key.p, line.c_str()) && StnzKeyValueCount(key.p) == 1 && StnzKeyValue(key.p, 1) != nullptr &&
           text == StnzKeyValue(key.p, 1);
}

bool decodeHello(std::string_view payload, std::string_view *name) {
    if (!nameReadsBack(payload)) return false;
    *name = payload;
    return true;
}

bool decodePacket(std::string_view payload, PacketFrame *packet) {
    if (!takeName(payload, &packet->source) || !takeName(payload, &packet->destination)) return false;
    const auto *image = reinterpret_cast<const unsigned char *>(payload.data());
    const size_t size = payload.size();
    if (size < MSG_PACKET_MINIMUM_SIZE || getLe32(image + 4) != static_cast<int32_t>(size) ||
        getLe32(image + MSG_PACKET_HEADER_SIZE) != static_cast<int32_t>(size - MSG_PACKET_HEADER_SIZE) ||
        getLe32(image + 24) != getLe32(image + MSG_PACKET_HEADER_SIZE + 4))
        return false;
    packet->image = payload;
    return true;
}

bool decodeDetails(std::string_view payload, Details *details, size_t *refused) {
    Details read;
    *refused = 0;
    while (!payload.empty()) {
        std::string_view index, length, value;
        if (!take(payload, 1, &index) || !take(payload, 2, &length)) return false;
        const size_t i = static_cast<unsigned char>(index[0]);
        const size_t bytes = static_cast<unsigned char>(length[0]) | size_t{static_cast<unsigned char>(length[1])} << 8;
        if (i >= read.size() || !take(payload, bytes, &value) || read[i]) return false;
        if (valueReadsBack(i, value))
            read[i] = std::string(value);
        else
            ++*refused;
    }
    *details = std::move(read);
    return true;
}

void PeerReader::append(const void *data, size_t size) {
    if (start_ > 0 && start_ >= buffer_.size() / 2) { // keep the buffer from creeping
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
        start_ = 0;
    }
    const auto *bytes = static_cast<const unsigned char *>(data);
    buffer_.insert(buffer_.end(), bytes, bytes + size);
}

PeerReader::Result PeerReader::next(Frame *frame) {
    if (broken_) return Result::kBroken;
    if (held() < kHeader) return Result::kMore;
    const unsigned char *at = buffer_.data() + start_;
    const auto length = static_cast<uint32_t>(getLe32(at));
    const auto kind = static_cast<uint32_t>(getLe32(at + 4));
    if (length < 4 || length > kMaxFrame || kind < 1 || kind > 4) {
        broken_ = true;
        return Result::kBroken;
    }
    if (held() < size_t{length} + 4) return Result::kMore;
    frame->kind = static_cast<Kind>(kind);
    frame->payload = std::string_view(reinterpret_cast<const char *>(at + kHeader), length - 4);
    start_ += size_t{length} + 4;
    return Result::kFrame;
}

} // namespace fhnmgr
