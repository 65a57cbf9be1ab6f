/**
 * The part of HTTP/1.0 that the daemon needs: a request parser over bytes and a response writer.
 * Both are pure functions; they know no socket and no loop.
 */
#ifndef BUNDLED_HTTP_H
#define BUNDLED_HTTP_H

#include <cstddef>
#include <string>
#include <string_view>

namespace bundled {

constexpr std::size_t kMaxRequestLine = 1024;
constexpr std::size_t kMaxRequestHead = 8192;

struct Request {
    std::string method;
    std::string path;           ///< Begins with a slash; percent escapes are left as they are.
    std::string query;          ///< The part behind the first question mark.
    std::string authorization;  ///< The value of the field; empty if there is no such field.
};

constexpr int kRequestIncomplete = 0;
constexpr int kRequestComplete = 200;

/**
 * Looks at the bytes that a client has sent so far.
 *
 * Returns kRequestIncomplete while the end of the head is missing, but not once there are
 * kMaxRequestHead bytes. Returns kRequestComplete with @p request filled. Returns another status to
 * refuse the request, possibly before the head is complete:
 * - 400: it is malformed.
 * - 413: it has a body.
 * - 414 or 431: it is longer than kMaxRequestLine or kMaxRequestHead.
 * - 505: it isn't HTTP/1.x.
 */
int parse_request(std::string_view bytes, Request& request);

struct Response {
    int status = 200;
    std::string body;           ///< Plain text.
    std::string extra_headers;  ///< Complete lines with their line ends; never foreign text.
};

/** Returns a response with @p body. */
Response text_response(int status, std::string body);

/** Returns a response whose body has the status, its reason, and @p detail if there is any. */
Response error_response(int status, std::string_view detail = {});

/** Returns the head of a response with its empty line. @p extra_headers are complete lines. */
std::string format_head(int status, const char* type, unsigned long long length,
                        const std::string& extra_headers = {});

/** Returns the bytes of @p response. With @p head_only the body is left out, but not its length. */
std::string format_response(const Response& response, bool head_only);

}  // namespace bundled

#endif
