// msgbody.h - reading the body of a packet that came from elsewhere.
//
// A body is rebuilt from a copy of the packet's bytes; the packet stays as
// it is. Any type of message can arrive with a body of another shape, so a
// body is read as T only when its magic and its whole format are T's: then
// the serialiser has laid it out as T. An object field still has to be
// checked for its own type before use.
#ifndef FHCORE_MSGBODY_H
#define FHCORE_MSGBODY_H

#include <cstdint>
#include <cstring>

#include "core/msgpacket.h"
#include "core/object.h"

namespace fh {

// An object already made (a message's body, a field of one) as T, when its
// magic and its whole format are T's; null otherwise.
template <typename T> T *shapedAs(const void *object, uint32_t magic, const char *format) {
    if (object == nullptr || !ObjCheckTypeInternal(object, magic)) return nullptr;
    const char *has = ObjGetFormat(ObjGetTemplateFromObject(object));
    return has != nullptr && std::strcmp(has, format) == 0 ? static_cast<T *>(const_cast<void *>(object)) : nullptr;
}

// The body of a packet if it is of magic and format, held for the scope.
template <typename T> class Body {
  public:
    Body(const MSG_PACKET *packet, uint32_t magic, const char *format) {
        void *body = nullptr;
        if (!MsgObjectFromPacketInternal(&body, packet, magic) || body == nullptr) return;
        const char *has = ObjGetFormat(ObjGetTemplateFromObject(body));
        if (has != nullptr && std::strcmp(has, format) == 0)
            body_ = static_cast<T *>(body);
        else
            ObjReleaseInternal(&body);
    }
    ~Body() { ObjReleaseInternal(&body_); }
    Body(const Body &) = delete;
    Body &operator=(const Body &) = delete;

    explicit operator bool() const { return body_ != nullptr; }
    T *operator->() const { return body_; }
    T *get() const { return body_; }
    // The body with the holder's reference; the holder is empty after.
    T *release() {
        T *body = body_;
        body_ = nullptr;
        return body;
    }

  private:
    T *body_ = nullptr;
};

} // namespace fh

#endif // FHCORE_MSGBODY_H
