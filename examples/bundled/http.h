/**
 * HTTP/1.0 as far as the daemon speaks it: a request parser over bytes and a response writer. Both
 * are pure functions; they know no socket and no loop.
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
    std::string query;          ///< What follows the first question mark.
    std::string authorization;  ///< The value of the field, empty without it.
};

constexpr int kRequestIncomplete = 0;
constexpr int kRequestComplete = 200;

/**
 * Looks at the bytes that a client has sent so far.
 *
 * Returns kRequestIncomplete while the end of the head is missing, kRequestComplete with @p request
 * filled, or the status to refuse the request with: 400 malformed, 413 has a body, 414 or 431
 * longer than kMaxRequestLine or kMaxRequestHead, 505 not HTTP/1.x. A refusal may come before the
 * head is complete. Asks for no more bytes once kMaxRequestHead are there.
 */
int parse_request(std::string_view bytes, Request& request);

struct Response {
    int status = 200;
    std::string body;           ///< Plain text.
    std::string extra_headers;  ///< Complete lines with their line ends; never foreign text.
};

/** A response that carries @p body. */
Response text_response(int status, std::string body);

/** A response whose body is the status and its reason, and @p detail if there is any. */
Response error_response(int status, std::string_view detail = {});

/** The head of a response, up to its empty line. @p extra_headers are complete lines. */
std::string format_head(int status, const char* type, unsigned long long length,
                        const std::string& extra_headers = {});

/** The bytes of @p response; without its body, but with the body's length, if @p head_only. */
std::string format_response(const Response& response, bool head_only);

}  // namespace bundled

#endif
