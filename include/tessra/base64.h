/**
 * @file base64.h
 * Base64 as RFC 4648 defines it in its section 4: the standard alphabet, '=' as the pad character,
 * no line breaks.
 *
 *     uint8_t* text;
 *     size_t length;
 *     int code = base64_encode_alloc(bytes, count, &text, &length);
 *     if (code != BASE64_OK) fprintf(stderr, "%s\n", base64_err[code]);
 *     free(text);                                   // Also after most failures: see below.
 *
 * Threads: any; there is no state. Blocks: never. Memory: only the two functions with the suffix
 * _alloc allocate memory, with calloc().
 */
#ifndef TESSRA_BASE64_H
#define TESSRA_BASE64_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** Results of the functions below, and indexes of @ref base64_err. */
enum {
    BASE64_OK = 0,              /**< Success. */
    BASE64_ERROR = 1,           /**< Reserved; no function returns it. */
    BASE64_INVALID_ARG = 2,     /**< A null pointer. */
    BASE64_INVALID_PACKET = 3,  /**< The text is not valid Base64. */
    BASE64_BUFFER_OVERFLOW = 4, /**< The caller's buffer is too small. */
    BASE64_INVALID_LEN = 5,     /**< The size of the encoded text doesn't fit a size_t. */
    BASE64_NOMEM = 6            /**< An allocation failed. */
};

/** The English texts of the results, without a full stop, for use in messages. */
extern const char* const base64_err[7];

/**
 * Encodes bytes as text with a terminating zero byte.
 *
 * @param in      the bytes; not null, even if @p inlen is 0
 * @param inlen   the number of bytes; 0 gives the empty text
 * @param out     receives the text; must not overlap @p in
 * @param outlen  on entry the capacity of @p out in bytes, including the terminator; on success the
 *                length of the text without the terminator
 *
 * The space needed is (inlen + 2) / 3 * 4 + 1 bytes. The function writes only that many bytes.
 *
 * Returns one of these:
 * - #BASE64_OK.
 * - #BASE64_INVALID_ARG: nothing is changed.
 * - #BASE64_INVALID_LEN: the space needed doesn't fit a size_t. Nothing is changed.
 * - #BASE64_BUFFER_OVERFLOW: @p out is unchanged. @p outlen holds the space needed, so that the
 *   caller can repeat the call with a buffer of that size.
 */
int base64_encode(const uint8_t* in, size_t inlen, uint8_t* out, size_t* outlen);

/**
 * Decodes text. Writes no terminator.
 *
 * @param in      the text; not null, even if @p inlen is 0
 * @param inlen   the exact length of the text, without a terminator; 0 gives no bytes
 * @param out     receives the bytes; must not overlap @p in
 * @param outlen  on entry the capacity of @p out in bytes; on success the number of bytes
 *
 * A valid text consists of whole groups of four characters of the standard alphabet, as in section
 * 4 of the RFC. The last group may end with one or two '='. Blanks, line ends, zero bytes and the
 * '-' and '_' of the URL-safe alphabet are not valid. The decoder ignores the bits of the last
 * character that belong to no byte (RFC 4648, section 3.5), so two texts can decode to the same
 * bytes.
 *
 * The decoder reads the text from its beginning. The first error decides the result: a group whose
 * bytes no longer fit into @p out, or a character that is not allowed at its place.
 *
 * Returns one of these:
 * - #BASE64_OK.
 * - #BASE64_INVALID_ARG: nothing is changed.
 * - #BASE64_INVALID_PACKET or #BASE64_BUFFER_OVERFLOW: @p outlen is unchanged. @p out holds the
 *   bytes of the groups before the failure, and is unchanged behind them.
 */
int base64_decode(const uint8_t* in, size_t inlen, uint8_t* out, size_t* outlen);

/**
 * Encodes bytes as base64_encode() does, into a new zeroed buffer.
 *
 * @param in      as in base64_encode()
 * @param inlen   as in base64_encode()
 * @param out     receives the buffer, which the caller releases with free()
 * @param outlen  receives the length of the text; its value on entry doesn't matter
 *
 * Returns one of these:
 * - #BASE64_OK.
 * - #BASE64_INVALID_ARG: if @p out or @p outlen is null, nothing is changed. If only @p in is null,
 *   @p out receives a buffer that the caller must free, and @p outlen receives its size.
 * - #BASE64_INVALID_LEN: @p out is null, and @p outlen holds a meaningless size.
 * - #BASE64_NOMEM: @p out is null, and @p outlen holds the size that couldn't be allocated.
 */
int base64_encode_alloc(const uint8_t* in, size_t inlen, uint8_t** out, size_t* outlen);

/**
 * Decodes text as base64_decode() does, into a new zeroed buffer of 3 * (inlen / 4) + 2 bytes. At
 * least two zero bytes follow the decoded bytes, so the caller can use decoded text as a string.
 *
 * @param in      as in base64_decode()
 * @param inlen   as in base64_decode()
 * @param out     receives the buffer, which the caller releases with free()
 * @param outlen  receives the number of bytes; its value on entry doesn't matter
 *
 * Returns one of these:
 * - #BASE64_OK.
 * - #BASE64_INVALID_ARG: if @p out or @p outlen is null, nothing is changed. If only @p in is null,
 *   @p out and @p outlen are as for an invalid text.
 * - #BASE64_INVALID_PACKET. Trap: @p out receives the buffer, with the bytes of the groups before
 *   the failure, and @p outlen its size. The caller must free the buffer after this failure, too.
 * - #BASE64_NOMEM: @p out is null, and @p outlen is unchanged.
 */
int base64_decode_alloc(const uint8_t* in, size_t inlen, uint8_t** out, size_t* outlen);

/**
 * Turns text of the standard alphabet into URL-safe text (RFC 4648, section 5), in place: every '+'
 * becomes '-', every '/' becomes '_'. All other bytes stay as they are, including '='.
 *
 * @param b64      the text; may be null if @p b64_len is 0
 * @param b64_len  the number of bytes to look at; a zero byte doesn't end the text
 */
void base64_urlsafe(char* b64, size_t b64_len);

/** Does the reverse of base64_urlsafe(): every '-' becomes '+', every '_' becomes '/'. Call this
 * before base64_decode(), which accepts only the standard alphabet. */
void base64_unurlsafe(char* b64, size_t b64_len);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
