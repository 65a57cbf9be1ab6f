/**
 * @file base64.h
 * Base64 as RFC 4648 defines it in its section 4: the standard alphabet, '=' as the pad character,
 * no line breaks.
 *
 *     uint8_t* text;
 *     size_t length;
 *     int code = base64_encode_alloc(bytes, count, &text, &length);
 *     if (code != BASE64_OK) fprintf(stderr, "%s\n", base64_err[code]);
 *     free(text);                                   // Also after most failures, see there.
 *
 * Threads: any; there is no state. Blocks: never. Memory: only the two functions with the suffix
 * _alloc allocate, with calloc().
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

/** An English text without a full stop for each result, for messages. */
extern const char* const base64_err[7];

/**
 * Encodes bytes as text with a terminating zero byte.
 *
 * @param in      the bytes; not null, not even when there are none
 * @param inlen   their number; 0 gives the empty text
 * @param out     takes the text; must not overlap @p in
 * @param outlen  on entry the capacity of @p out in bytes, terminator included; on success the
 *                length of the text, terminator not included
 *
 * The space needed is (inlen + 2) / 3 * 4 + 1 bytes. Only that many are written.
 *
 * @return  #BASE64_OK;
 *          #BASE64_INVALID_ARG, nothing is touched;
 *          #BASE64_INVALID_LEN if the space needed doesn't fit a size_t, nothing is touched;
 *          #BASE64_BUFFER_OVERFLOW, @p out is untouched and @p outlen holds the space needed, so
 *          that the call can be repeated with that much
 */
int base64_encode(const uint8_t* in, size_t inlen, uint8_t* out, size_t* outlen);

/**
 * Decodes text. Writes no terminator.
 *
 * @param in      the text; not null, not even when it is empty
 * @param inlen   its exact length, a terminator not included; 0 gives no bytes
 * @param out     takes the bytes; must not overlap @p in
 * @param outlen  on entry the capacity of @p out in bytes; on success the number of bytes
 *
 * Valid is what section 4 of the RFC gives: whole groups of four characters of the standard
 * alphabet, the last of which may end in one or two '='. Blanks, line ends, zero bytes and the '-'
 * and '_' of the URL-safe alphabet are not valid. Bits of the last character that no byte needs are
 * dropped, whatever they are (RFC 4648, section 3.5), so two texts can decode to the same bytes.
 *
 * The text is judged from its beginning, and the first thing that is wrong decides: a group that
 * doesn't fit any more, or a character that is out of place.
 *
 * @return  #BASE64_OK;
 *          #BASE64_INVALID_ARG, nothing is touched;
 *          #BASE64_INVALID_PACKET or #BASE64_BUFFER_OVERFLOW: @p outlen is unchanged, @p out holds
 *          the bytes of the groups before the failure and is untouched behind them
 */
int base64_decode(const uint8_t* in, size_t inlen, uint8_t* out, size_t* outlen);

/**
 * base64_encode() into a new zeroed buffer.
 *
 * @param in      as in base64_encode()
 * @param inlen   as in base64_encode()
 * @param out     takes the buffer, which the caller releases with free()
 * @param outlen  takes the length of the text; what it holds on entry plays no part
 *
 * @return  #BASE64_OK;
 *          #BASE64_INVALID_ARG, if @p out or @p outlen is null: nothing is touched. If only @p in
 *          is null: @p out has a buffer to free and @p outlen its size;
 *          #BASE64_INVALID_LEN, @p out is null, and @p outlen holds a size without meaning;
 *          #BASE64_NOMEM, @p out is null, and @p outlen holds the size that couldn't be had
 */
int base64_encode_alloc(const uint8_t* in, size_t inlen, uint8_t** out, size_t* outlen);

/**
 * base64_decode() into a new zeroed buffer of 3 * (inlen / 4) + 2 bytes. At least two zero bytes
 * follow the decoded ones, so that decoded text can be used as a string at once.
 *
 * @param in      as in base64_decode()
 * @param inlen   as in base64_decode()
 * @param out     takes the buffer, which the caller releases with free()
 * @param outlen  takes the number of bytes; what it holds on entry plays no part
 *
 * @return  #BASE64_OK;
 *          #BASE64_INVALID_ARG, if @p out or @p outlen is null: nothing is touched. If only @p in
 *          is null: as for an invalid text;
 *          #BASE64_INVALID_PACKET. Trap: @p out has the buffer, to be freed all the same, with the
 *          groups before the failure, and @p outlen its size;
 *          #BASE64_NOMEM, @p out is null, and @p outlen is untouched
 */
int base64_decode_alloc(const uint8_t* in, size_t inlen, uint8_t** out, size_t* outlen);

/**
 * Turns text of the standard alphabet into URL-safe text (RFC 4648, section 5), in place: every '+'
 * becomes '-', every '/' becomes '_'. All other bytes stay, '=' among them.
 *
 * @param b64      the text; may be null if @p b64_len is 0
 * @param b64_len  bytes to look at; a zero byte doesn't end the text
 */
void base64_urlsafe(char* b64, size_t b64_len);

/** The reverse of base64_urlsafe(): every '-' becomes '+', every '_' becomes '/'. The decoder needs
 * it, since it knows the standard alphabet alone. */
void base64_unurlsafe(char* b64, size_t b64_len);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
