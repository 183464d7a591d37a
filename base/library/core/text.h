// text.h - the character model as the string, stanza and configuration
// modules share it: lead bytes, blanks and case folding.
#ifndef FHCORE_TEXT_H
#define FHCORE_TEXT_H

namespace fh {

// The lead bytes of the double-byte character model: a lead byte and the byte
// behind it are one character.
constexpr bool isLeadByte(unsigned char byte) { return (byte >= 0x80 && byte <= 0x9F) || byte >= 0xE0; }

// Bytes of the character at p: 2 for a lead byte with a byte behind it.
inline int charBytes(const char *p) { return isLeadByte(static_cast<unsigned char>(*p)) && p[1] != '\0' ? 2 : 1; }

// The blanks of the text formats: space and tab.
constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Case folding of the string layer: 'a' to 'z' onto 'A' to 'Z', nothing else.
constexpr char foldCase(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

} // namespace fh

#endif // FHCORE_TEXT_H
