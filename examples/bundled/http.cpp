#include "http.h"

#include <strings.h>

#include <utility>

namespace bundled {

namespace {

struct Reason {
    int status;
    const char* text;
};

constexpr Reason kReasons[] = {
    {200, "OK"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
};

const char* reason_of(int status) {
    for (const Reason& reason : kReasons) {
        if (reason.status == status) {
            return reason.text;
        }
    }
    return "Unknown";
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool is_alpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// A token as in RFC 9110, section 5.6.2.
bool is_token(std::string_view text) {
    constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
    for (const char c : text) {
        if (!is_alpha(c) && !is_digit(c) && kMarks.find(c) == std::string_view::npos) {
            return false;
        }
    }
    return !text.empty();
}

bool is_visible_ascii(std::string_view text) {
    for (const char c : text) {
        if (c <= ' ' ||
            c > '~') {  // Refuses bytes of 128 and above, whether char is signed or not.
            return false;
        }
    }
    return !text.empty();
}

bool has_control_character(std::string_view text) {
    for (const char c : text) {
        if ((static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f') {
            return true;
        }
    }
    return false;
}

bool equal_ignoring_case(std::string_view left, std::string_view right) {
    return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlank = " \t";
    const std::size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

// Takes the next line off the rest, without its end: CR LF or, by RFC 9112, section 2.2, LF alone.
bool take_line(std::string_view& rest, std::string_view& line) {
    const std::size_t end = rest.find('\n');
    if (end == std::string_view::npos) {
        return false;
    }
    line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return true;
}

// The daemon treats any HTTP/1.x as the 1.x that it knows, RFC 9110, section 2.5.
int check_version(std::string_view version) {
    const bool well_formed = version.size() == 8 && version.substr(0, 5) == "HTTP/" &&
                             is_digit(version[5]) && version[6] == '.' && is_digit(version[7]);
    if (!well_formed) {
        return 400;
    }
    return version[5] == '1' ? kRequestComplete : 505;
}

// Splits a target in origin form, or in absolute form, which RFC 9112, section 3.2.2, requires.
bool parse_target(std::string_view target, Request& request) {
    constexpr std::string_view kScheme = "http://";
    if (!is_visible_ascii(target)) {
        return false;
    }
    if (equal_ignoring_case(target.substr(0, kScheme.size()), kScheme)) {
        const std::size_t slash = target.find('/', kScheme.size());
        target = slash == std::string_view::npos ? "/" : target.substr(slash);
    }
    if (target.front() != '/') {
        return false;
    }
    const std::size_t mark = target.find('?');
    request.path = target.substr(0, mark);
    request.query = mark == std::string_view::npos ? "" : target.substr(mark + 1);
    return true;
}

int parse_request_line(std::string_view line, Request& request) {
    const std::size_t first = line.find(' ');
    const std::size_t last = line.rfind(' ');
    if (first == std::string_view::npos || first == last) {
        return 400;
    }
    const std::string_view method = line.substr(0, first);
    if (!is_token(method) || !parse_target(line.substr(first + 1, last - first - 1), request)) {
        return 400;
    }
    request.method = method;
    return check_version(line.substr(last + 1));
}

// No resource takes a body, so a request that announces a body is refused before it is sent.
int check_body_length(std::string_view value) {
    bool empty = true;
    for (const char c : value) {
        if (!is_digit(c)) {
            return 400;
        }
        empty = empty && c == '0';
    }
    if (value.empty()) {
        return 400;
    }
    return empty ? kRequestComplete : 413;
}

int take_field(std::string_view line, Request& request) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !is_token(line.substr(0, colon)) ||
        has_control_character(line)) {
        return 400;
    }
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = trimmed(line.substr(colon + 1));
    if (equal_ignoring_case(name, "Content-Length")) {
        return check_body_length(value);
    }
    if (equal_ignoring_case(name, "Authorization")) {
        const bool repeated = !request.authorization.empty();
        request.authorization = value;
        return repeated ? 400 : kRequestComplete;
    }
    return equal_ignoring_case(name, "Transfer-Encoding") ? 413 : kRequestComplete;
}

}  // namespace

int parse_request(std::string_view bytes, Request& request) {
    const int on_missing_end = bytes.size() >= kMaxRequestHead ? 431 : kRequestIncomplete;
    std::string_view rest = bytes.substr(0, kMaxRequestHead);
    std::string_view line;
    while (line.empty()) {  // Empty lines may precede a request, RFC 9112, section 2.2.
        const bool complete = take_line(rest, line);
        if ((complete ? line : rest).size() > kMaxRequestLine) {
            return 414;
        }
        if (!complete) {
            return on_missing_end;
        }
    }
    int status = parse_request_line(line, request);
    while (status == kRequestComplete) {
        if (!take_line(rest, line)) {
            return on_missing_end;
        }
        if (line.empty()) {
            return kRequestComplete;
        }
        status = take_field(line, request);
    }
    return status;
}

Response text_response(int status, std::string body) {
    Response response;
    response.status = status;
    response.body = std::move(body);
    return response;
}

Response error_response(int status, std::string_view detail) {
    std::string body = std::to_string(status) + " " + reason_of(status);
    if (!detail.empty()) {
        body.append(": ").append(detail);
    }
    return text_response(status, body + "\n");
}

std::string format_head(int status, const char* type, unsigned long long length,
                        const std::string& extra_headers) {
    return "HTTP/1.0 " + std::to_string(status) + " " + reason_of(status) + "\r\n" +
           "Content-Type: " + type + "\r\n" + "Content-Length: " + std::to_string(length) + "\r\n" +
           "Connection: close\r\n" + extra_headers + "\r\n";
}

std::string format_response(const Response& response, bool head_only) {
    std::string bytes =
        format_head(response.status, "text/plain", response.body.size(), response.extra_headers);
    if (!head_only) {
        bytes += response.body;
    }
    return bytes;
}

}  // namespace bundled
