/*
 * strstream.h - characters of the string layer through a file stream.
 *
 * A character is one byte, or two when the first is a lead byte (the
 * double-byte model of strbase.h), first byte high. Carriage returns are
 * read and dropped, so text with CR LF line ends reads as with LF.
 */
#ifndef FHCORE_STRSTREAM_H
#define FHCORE_STRSTREAM_H

#include "filestream.h"
#include "types.h"

FH_BEGIN_DECLS

/* The next character of the input in *out. FALSE at the end of the file,
 * for a null out, and (traced) for a lead byte that is the last byte. */
FHAPI BOOL StrFileReadChar(FILE_STREAM *stream, int32_t *out);

/* Reads up to the next line feed, storing at most size - 1 bytes and a
 * terminator; a double-byte character that does not fit closes the line
 * there. What does not fit is read and dropped. The bytes stored, 0 for an
 * empty line, -1 at the end of the file. */
FHAPI int32_t StrFileReadLine(FILE_STREAM *stream, char *buffer, int32_t size);

/* Writes one character (above 255: high byte, then low byte), or every byte
 * of a string without its terminator (TRUE for ""; FALSE for null). */
FHAPI BOOL StrFileWriteChar(FILE_STREAM *stream, int32_t value);
FHAPI BOOL StrFileWriteString(FILE_STREAM *stream, const char *string);

FH_END_DECLS

#endif /* FHCORE_STRSTREAM_H */
