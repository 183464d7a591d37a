// msgnames.h - the catalogue of message names, as the messaging module
// holds it: one row per id, in ascending id order.
#ifndef FHCORE_MSGNAMES_H
#define FHCORE_MSGNAMES_H

#include <cstdint>
#include <span>

namespace fh {

// A row of the catalogue and an entry of the context's name map: two words.
struct MessageName {
    const char *name;
    int32_t id;
};

// The catalogue, from the family lists under messages/.
std::span<const MessageName> messageCatalogue();

} // namespace fh

#endif // FHCORE_MSGNAMES_H
