/** HTTP's Basic authentication, RFC 7617: a pure function of what a request has. */
#ifndef BUNDLED_AUTH_H
#define BUNDLED_AUTH_H

#include <string_view>

namespace bundled {

/**
 * Whether @p field, the value of a request's Authorization, carries @p wanted, "user:password".
 *
 * How long it takes tells nothing of @p wanted but its length. What isn't Basic or not valid
 * Base64 carries nothing.
 */
bool is_authorized(std::string_view field, std::string_view wanted);

}  // namespace bundled

#endif
