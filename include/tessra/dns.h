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
 * The codec only works on the caller's buffers, which need no alignment. The caller is responsible
 * for the rest:
 *
 * - Sending, receiving, time limits and retries.
 * - The origin of a reply. Anybody can send to a UDP port. So compare the sender's address and port
 *   with those of the server, transaction_id with the id that was drawn at random for the query,
 *   and the question with the one sent, whose bytes a server repeats. A parser checks none of them.
 * - Lengths. No call knows the length of a buffer. A reply must be complete: it has all the records
 *   that its header counts, and each has all of its data. A parser reads beyond the end of a reply
 *   that is cut off. Give the parsers a buffer of 65535 bytes, the length of the longest message,
 *   with zeros behind the received bytes: no reply, however it is made, leads a parser out of that
 *   buffer. But the zeros count as part of the reply: they turn an address that is cut off into
 *   another address. So compare the length received with the length sent (recv() returns it with
 *   MSG_TRUNC; over TCP it precedes the message), and check the flag `truncated`. Never pass fewer
 *   than 12 received bytes to a parser.
 *
 * Threads: any, each with buffers of its own; there is no state. Memory: the codec allocates only
 * the names that it hands out. Blocks: never. The functions print nothing.
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
 * Header of a message (RFC 1035, 4.1.1; the two DNSSEC flags are from RFC 4035, 3.2). A pointer to
 * this type may point to a buffer of any alignment. All fields are big-endian on the wire. A parser
 * changes the first four to host order. The bit-fields have the layout of a little-endian host, and
 * are valid once `raw` is in host order.
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
            unsigned int recursion_desired : 1;      /**< RD: the server should ask others. */
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
 * Encodes a dotted name as labels (RFC 1035, 3.1). Each label is a length byte and the bytes of the
 * label. A zero byte follows the last one.
 *
 * @param s  the name; not changed
 * @param d  receives strlen(s) + 2 bytes; must not overlap @p s
 *
 * Returns the number of bytes written. Cannot fail and checks nothing: the caller must pass labels
 * of 1 to 63 bytes, and at most 255 bytes in all. Traps: for a longer label, the length byte has
 * the low 8 bits of its length. An empty label gives a length byte of zero, where a reader sees the
 * end of the name. Two dots in a row, a dot at the beginning or the end, and an empty name make an
 * empty label. So remove the dot at the end of a fully qualified name.
 */
int string2name(char* s, char* d);

/**
 * Decodes a name of labels to dotted text without a dot at the end.
 *
 * @param p  a name as string2name() writes it. Every length byte counts as a length; compression
 *           pointers are not followed.
 *
 * Returns a new string, which the caller frees. For the root, whose first byte is zero, the string
 * is empty. Returns NULL if there is no memory, or if the text and its terminator would need more
 * than 256 bytes; no name of legal size needs so many. In any case the call reads no more than 257
 * bytes at @p p. Traps: the bytes of labels are copied as they are, so a dot within a label looks
 * like a separator, and a zero byte ends the text early. Foreign names can contain any byte: be
 * careful where you print them.
 */
char* name2string(char* p);

/**
 * Builds a query of one question, with recursion desired and no other flag.
 *
 * @param req    512 bytes. The call writes all of them: the bytes behind the message are zero.
 * @param name   the dotted name, see string2name(); not inside @p req
 * @param type   1 for A, 28 for AAAA, or another type
 * @param clss   1 for the Internet
 * @param trans  the transaction id
 *
 * The call uses only the low 16 bits of @p type, @p clss and @p trans.
 *
 * Returns the length of the message: 18 bytes plus strlen(name). If the name has more than 494
 * bytes, it doesn't fit: the call returns 0, and @p req is all zero. A name of 254 to 494 bytes is
 * longer than the standard allows, but is encoded as it is.
 */
int dns_build_request(char* req, char* name, int type, int clss, int trans);

/**
 * Finds the first usable IPv4 address in a reply to a query of dns_build_request().
 *
 * @param rep   the reply (see above for its length): a header, one question whatever question_count
 *              says, and the answers. The call changes transaction_id, raw, question_count and
 *              answer_count to host order in place, so the reply can't be parsed again. Afterwards
 *              answer_count is the number of answers behind the last one looked at, 0xFFFF if the
 *              call has looked at all and found no address.
 * @param name  receives the question's name; may be NULL. The call sets it if the reply has no
 *              error and at least one answer, whether the result is 1 or 0. The value is a new
 *              string that the caller frees, or NULL if the name can't be decoded or there is no
 *              memory. Otherwise the call doesn't set it. So set it to NULL before, and always free
 *              it.
 * @param addr  receives the address in network byte order; not null
 *
 * Returns 1 with the address of the first A record that isn't 0.0.0.0 in @p addr. The record may
 * have any class and owner name (those of a CNAME chain count, too). Other types are skipped.
 * Returns -1 if reply_code isn't 0; @p addr is unchanged then.
 * Returns 0 if there is no such address. Then @p addr is unchanged, or zero if there were A records
 * of 0.0.0.0.
 *
 * The question's name ends at its first zero byte, whatever its length and that of its labels. If
 * name2string() can't decode it, @p name receives NULL.
 *
 * The call takes the owner name of an answer to be two bytes, normally a compression pointer, which
 * it doesn't follow. It also recognises a name of labels with a zero byte or a pointer at the end
 * (RFC 1035, 4.1.4) if the name is one of these:
 *
 * - The root or a name of one letter, of a record of class IN.
 * - A name of up to 255 bytes whose first label has two or more bytes. The second is 32 or more.
 * - A name of up to 255 bytes whose first label has one byte. Behind it comes a pointer, or a label
 *   whose first byte is 32 or more.
 *
 * Trap: an owner of two bytes that isn't a pointer can look like such a name in these records:
 *
 * - The first byte is 1, and the type is 288 or more.
 * - The first byte is 2 to 63, and the type is 8192 or more.
 * - The first byte is 0, the low byte of the type is 0, and the class is 256 to 511.
 * - The first byte is 1, the type is below 256, the low byte of the class is 0, and the high byte
 *   of the TTL is 1.
 *
 * Records of addresses have smaller types than those of the first two cases, and the classes of the
 * last two aren't assigned (RFC 6895, 3.2).
 *
 * The search stops at an answer that goes on beyond byte 65535 of the message. The call never reads
 * bytes behind the last answer that it looks at.
 * Trap: an A record counts as having 4 bytes of data whatever its rdlength says.
 */
int dns_parse_reply(char* rep, char** name, struct in_addr* addr);

/**
 * Finds the first usable address of either family in a reply, as dns_parse_reply() does for IPv4.
 * It follows the order of the answers and prefers neither family.
 *
 * @param rep   as in dns_parse_reply()
 * @param name  as in dns_parse_reply()
 * @param addr  receives ss_family and the address: AF_INET and sin_addr for an A record, AF_INET6
 *              and sin6_addr for AAAA; not null. The call changes no other bytes. But the two
 *              addresses overlap: if the call skips an address of zeros, the zeros stay there.
 *
 * Returns 1, 0 or -1 as dns_parse_reply() does. A record whose address is all zero is no result.
 * But if the result is 0, @p addr holds the family and address of the last such record. An AAAA
 * record counts as having 16 bytes of data.
 */
int dns_parse_reply_v6(char* rep, char** name, struct sockaddr_storage* addr);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
