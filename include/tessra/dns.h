/**
 * @file dns.h
 * DNS messages (RFC 1035; RFC 3596 for AAAA): a query for one name, and the first usable address of
 * a reply.
 *
 *     char request[512];
 *     int length = dns_build_request(request, host, 1, 1, id);    // type A, class IN
 *     // send `length` bytes, receive the reply, compare its sender, id and question, then:
 *     int found = dns_parse_reply(reply, NULL, &address);
 *
 * The codec only works on the caller's buffers, which need no alignment. What is left to the
 * caller:
 *
 * - Sending, receiving, time limits and retries.
 * - Whether a reply is one. Anybody can send to a UDP port: compare the sender's address and port
 *   with the server asked, transaction_id with an id that was drawn at random, and the question
 *   with the one sent, whose bytes a server repeats. A parser looks at none of them.
 * - Lengths. No call is told how long a buffer is. A reply must be complete: all the records that
 *   its header counts, each with all of its data. One that is cut off is read beyond its end. Give
 *   the parsers a buffer of 65535 bytes, the longest message there is, whose rest behind what was
 *   received is zero: no reply leads a parser out of that, however it is made. The zeros count as
 *   part of the reply, though: of an address that is cut off they make another address. So compare
 *   the length received with the one sent (recv() tells it with MSG_TRUNC; over TCP it stands
 *   before the message), and see the flag `truncated`. Never hand on fewer than 12 bytes received.
 *
 * Threads: any, each with buffers of its own; there is no state. Memory: only a name that is handed
 * out is allocated. Blocks: never. Nothing is printed.
 */
#ifndef TESSRA_DNS_H
#define TESSRA_DNS_H

#include <netinet/in.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * Header of a message (RFC 1035, 4.1.1; the two DNSSEC flags are from RFC 4035, 3.2). It may be
 * laid over a buffer of any alignment. All fields are big-endian on the wire; after a parser's call
 * the first four are in host order. The bit-fields are those of a little-endian host, and hold
 * once `raw` is in host order.
 */
typedef struct __attribute__((packed, may_alias)) {
    unsigned short transaction_id; /**< Chosen by the requester, repeated by the server. */
    union {
        unsigned short raw; /**< All flags. */
        struct __attribute__((packed)) {
            unsigned int reply_code : 4; /**< 0: no error, 2: server failed, 3: no such name. */
            unsigned int accept_unauthenticated : 1; /**< CD: the requester checks by itself. */
            unsigned int answer_authenticated : 1;   /**< AD: the server has checked the answers. */
            unsigned int zero : 1;                   /**< Reserved. */
            unsigned int recursion_available : 1;    /**< RA: the server asks others. */
            unsigned int recursion_desired : 1;      /**< RD: the server is to ask others. */
            unsigned int truncated : 1;     /**< TC: records are missing, ask again over TCP. */
            unsigned int authoritative : 1; /**< AA: the server answers for the zone. */
            unsigned int opcode : 4;        /**< 0: a query. */
            unsigned int response : 1;      /**< QR: 1 in a reply. */
        } flags;                     /**< The flags one by one, from the lowest bit of raw. */
    } f;                             /**< The flags in both forms. */
    unsigned short question_count;   /**< Questions, the first section of records. */
    unsigned short answer_count;     /**< Answers. */
    unsigned short authority_count;  /**< Records about name servers. */
    unsigned short additional_count; /**< Further records. */
} dns_header_t;

/** Returns the big-endian 16-bit value at @p data, which needs no alignment. */
static inline short unsigned int read16(const char* data) {
    return (short unsigned int)((unsigned char)data[0] << 8 | (unsigned char)data[1]);
}

/** Stores @p s at @p data, high byte first. Returns 2, the number of bytes. */
static inline int write16(char* data, short unsigned int s) {
    data[0] = (char)(s >> 8);
    data[1] = (char)(s & 0xFF);
    return 2;
}

/**
 * Encodes a dotted name as labels (RFC 1035, 3.1): each a length byte and its bytes, at the end a
 * zero byte.
 *
 * @param s  the name; not changed
 * @param d  gets strlen(s) + 2 bytes; must not overlap @p s
 *
 * Returns the number of bytes written. Cannot fail, and checks nothing: labels of 1 to 63 bytes and
 * 255 bytes in all are the caller's duty. Traps: a longer label gets the low 8 bits of its length;
 * an empty one, of two dots in a row, a dot at the beginning or the end, or an empty name, gives a
 * length byte of zero where a reader sees the name's end. So take the dot off a fully qualified
 * name.
 */
int string2name(char* s, char* d);

/**
 * Decodes a name of labels to dotted text without a dot at the end.
 *
 * @param p  a name as string2name() writes it; every length byte counts as a length, compression
 *           pointers are not followed
 *
 * Returns a new string, which the caller frees; an empty one for the root, whose first byte is
 * zero. Returns NULL without memory, or if the text and its terminator would need more than 256
 * bytes, which no name of legal size does; no more than 257 bytes at @p p are read in any case.
 * Traps: the bytes of labels are copied as they are, so a dot within a label looks like a
 * separator, a zero byte ends the text early, and foreign names can hold anything: mind where you
 * print them.
 */
char* name2string(char* p);

/**
 * Builds a query of one question, with recursion desired and no other flag.
 *
 * @param req    512 bytes, all of which are written: those behind the message are zero
 * @param name   the dotted name, see string2name(); not inside @p req
 * @param type   1 for A, 28 for AAAA, or another type; this one and the next two are taken by their
 *               low 16 bits
 * @param clss   1 for the Internet
 * @param trans  the transaction id
 *
 * Returns the length of the message: 18 bytes plus strlen(name). Returns 0, with @p req all zero,
 * for a name that doesn't fit, one of more than 494 bytes. A name above the 253 of the standard
 * that fits is encoded as it is.
 */
int dns_build_request(char* req, char* name, int type, int clss, int trans);

/**
 * Takes the first usable IPv4 address out of a reply to a dns_build_request() query.
 *
 * @param rep   the reply (see above for its length): a header, one question whatever question_count
 *              says, and the answers. It is consumed: transaction_id, raw, question_count and
 *              answer_count are turned to host order in place, so it can't be parsed again.
 *              Afterwards answer_count is the number of answers behind the last one looked at,
 *              0xFFFF if all were passed over.
 * @param name  gets the question's name, may be NULL. It is written when the reply has no error and
 *              at least one answer, whether the result is 1 or 0: a new string that the caller
 *              frees, or NULL if it can't be decoded or there is no memory. It is left alone
 *              otherwise: preset it to NULL and free it always.
 * @param addr  gets the address in network byte order; not null
 *
 * Returns 1 with an address in @p addr: the first A record that isn't 0.0.0.0, of whatever class
 * and owner name (those of a CNAME chain count as well). Other types are passed over.
 * Returns -1 if reply_code isn't 0, and then @p addr is untouched.
 * Returns 0 if there is no such address. @p addr is untouched then, or zero if A records of 0.0.0.0
 * were there.
 *
 * The question's name ends at its first zero byte, however long it and its labels are. @p name
 * gets NULL for one that name2string() can't decode.
 *
 * The owner name of an answer is taken to be the two bytes of a compression pointer, which are
 * never looked at. A name of labels, ended by a zero byte or a pointer (RFC 1035, 4.1.4), counts as
 * well if it is one of these:
 *
 * - The root or a name of one letter, of a record of class IN.
 * - A name of up to 255 bytes whose first label has two or more bytes, the second being 32 or more.
 * - A name of up to 255 bytes whose first label has one byte, with a pointer behind it or a label
 *   whose first byte is 32 or more.
 *
 * Trap: an owner of two bytes that isn't a pointer can look like such a name, if its first byte is
 * 1 to 63 and the record's type is 8192 or more, or 288 or more where that byte is 1. Records of
 * addresses have smaller types. If that byte is 0 or 1, a record of class 0 or 256 can look so,
 * too; neither class is in use.
 *
 * An answer that goes on beyond byte 65535 of the message ends the search. Bytes behind the last
 * answer looked at are never read.
 * Trap: an A record counts as having 4 bytes of data whatever its rdlength says.
 */
int dns_parse_reply(char* rep, char** name, struct in_addr* addr);

/**
 * Takes the first usable address of either family out of a reply: dns_parse_reply() that knows AAAA
 * as well. It goes by the order of the answers and prefers neither.
 *
 * @param rep   as there
 * @param name  as there
 * @param addr  gets the address and ss_family: AF_INET and sin_addr for an A record, AF_INET6 and
 *              sin6_addr for AAAA; not null. The rest keeps what it holds, but the
 *              addresses overlap: passing one of zeros over leaves them there
 *
 * Returns 1, 0 or -1 as dns_parse_reply(). A record whose address is all zero is no result, but
 * family and address of the last such record are in @p addr if the result is 0. An AAAA record
 * counts as having 16 bytes of data.
 */
int dns_parse_reply_v6(char* rep, char** name, struct sockaddr_storage* addr);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
