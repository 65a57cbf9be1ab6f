/** HTTP's Basic authentication, RFC 7617: a pure function of a request's field. */
#ifndef BUNDLED_AUTH_H
#define BUNDLED_AUTH_H

#include <string_view>

namespace bundled {

/**
 * Returns whether @p field, the value of a request's Authorization, has @p wanted, "user:password".
 *
 * The time that the call takes reveals nothing about @p wanted except its length. A field that
 * isn't Basic or isn't valid Base64 never has it.
 */
bool is_authorized(std::string_view field, std::string_view wanted);

}  // namespace bundled

#endif
