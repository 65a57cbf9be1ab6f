// The symbolic names of the error numbers 0 to 133.
#ifndef TESSRA_MISC_ERROR_NAMES_H
#define TESSRA_MISC_ERROR_NAMES_H

#include <cerrno>
#include <cstddef>

namespace tessra {

// In the order of the numbers. NONE is a number without a name, BOTH is a number with two names.
// clang-format off
#define TESSRA_ERROR_NAMES(NAME, BOTH, NONE)                                                      \
    NONE(0) NAME(EPERM) NAME(ENOENT) NAME(ESRCH) NAME(EINTR) NAME(EIO) NAME(ENXIO) NAME(E2BIG)    \
    NAME(ENOEXEC) NAME(EBADF) NAME(ECHILD) BOTH(EAGAIN, EWOULDBLOCK) NAME(ENOMEM) NAME(EACCES)    \
    NAME(EFAULT) NAME(ENOTBLK) NAME(EBUSY) NAME(EEXIST) NAME(EXDEV) NAME(ENODEV) NAME(ENOTDIR)    \
    NAME(EISDIR) NAME(EINVAL) NAME(ENFILE) NAME(EMFILE) NAME(ENOTTY) NAME(ETXTBSY) NAME(EFBIG)    \
    NAME(ENOSPC) NAME(ESPIPE) NAME(EROFS) NAME(EMLINK) NAME(EPIPE) NAME(EDOM) NAME(ERANGE)        \
    BOTH(EDEADLK, EDEADLOCK) NAME(ENAMETOOLONG) NAME(ENOLCK) NAME(ENOSYS) NAME(ENOTEMPTY)         \
    NAME(ELOOP) NONE(41) NAME(ENOMSG) NAME(EIDRM) NAME(ECHRNG) NAME(EL2NSYNC) NAME(EL3HLT)        \
    NAME(EL3RST) NAME(ELNRNG) NAME(EUNATCH) NAME(ENOCSI) NAME(EL2HLT) NAME(EBADE) NAME(EBADR)     \
    NAME(EXFULL) NAME(ENOANO) NAME(EBADRQC) NAME(EBADSLT) NONE(58) NAME(EBFONT) NAME(ENOSTR)      \
    NAME(ENODATA) NAME(ETIME) NAME(ENOSR) NAME(ENONET) NAME(ENOPKG) NAME(EREMOTE) NAME(ENOLINK)   \
    NAME(EADV) NAME(ESRMNT) NAME(ECOMM) NAME(EPROTO) NAME(EMULTIHOP) NAME(EDOTDOT) NAME(EBADMSG)  \
    NAME(EOVERFLOW) NAME(ENOTUNIQ) NAME(EBADFD) NAME(EREMCHG) NAME(ELIBACC) NAME(ELIBBAD)         \
    NAME(ELIBSCN) NAME(ELIBMAX) NAME(ELIBEXEC) NAME(EILSEQ) NAME(ERESTART) NAME(ESTRPIPE)         \
    NAME(EUSERS) NAME(ENOTSOCK) NAME(EDESTADDRREQ) NAME(EMSGSIZE) NAME(EPROTOTYPE)                \
    NAME(ENOPROTOOPT) NAME(EPROTONOSUPPORT) NAME(ESOCKTNOSUPPORT) BOTH(EOPNOTSUPP, ENOTSUP)       \
    NAME(EPFNOSUPPORT) NAME(EAFNOSUPPORT) NAME(EADDRINUSE) NAME(EADDRNOTAVAIL) NAME(ENETDOWN)     \
    NAME(ENETUNREACH) NAME(ENETRESET) NAME(ECONNABORTED) NAME(ECONNRESET) NAME(ENOBUFS)           \
    NAME(EISCONN) NAME(ENOTCONN) NAME(ESHUTDOWN) NAME(ETOOMANYREFS) NAME(ETIMEDOUT)               \
    NAME(ECONNREFUSED) NAME(EHOSTDOWN) NAME(EHOSTUNREACH) NAME(EALREADY) NAME(EINPROGRESS)        \
    NAME(ESTALE) NAME(EUCLEAN) NAME(ENOTNAM) NAME(ENAVAIL) NAME(EISNAM) NAME(EREMOTEIO)           \
    NAME(EDQUOT) NAME(ENOMEDIUM) NAME(EMEDIUMTYPE) NAME(ECANCELED) NAME(ENOKEY) NAME(EKEYEXPIRED) \
    NAME(EKEYREVOKED) NAME(EKEYREJECTED) NAME(EOWNERDEAD) NAME(ENOTRECOVERABLE) NAME(ERFKILL)     \
    NAME(EHWPOISON)
// clang-format on

constexpr int kErrorNames = 134;

// One text after another, each with its terminator. The loader would have to relocate an array of
// pointers in every process, and a process seldom reads this table more than once.
#define TESSRA_TEXT_NAME(name) #name "\0"
#define TESSRA_TEXT_BOTH(name, other) #name "/" #other "\0"
#define TESSRA_TEXT_NONE(number) "\0"
constexpr char ename[] = TESSRA_ERROR_NAMES(TESSRA_TEXT_NAME, TESSRA_TEXT_BOTH, TESSRA_TEXT_NONE);

// The name of an error number from 0 to 133; empty for a number that has none.
constexpr const char* error_name(int error) {
    const char* name = ename;
    for (; error != 0; --error) {
        while (*name != 0) ++name;
        ++name;
    }
    return name;
}

// Checks the rows against the platform's numbers. With other numbers the names would be wrong.
#define TESSRA_ROW_NAME(name) name,
#define TESSRA_ROW_BOTH(name, other) (name) == (other) ? (name) : -1,
#define TESSRA_ROW_NONE(number) number,
constexpr bool names_fit_platform() {
    constexpr int kRows[] = {TESSRA_ERROR_NAMES(TESSRA_ROW_NAME, TESSRA_ROW_BOTH, TESSRA_ROW_NONE)};
    for (int row = 0; row < kErrorNames; ++row) {
        if (kRows[row] != row) return false;
    }
    return sizeof kRows / sizeof kRows[0] == kErrorNames;
}
static_assert(names_fit_platform());
static_assert(error_name(kErrorNames) + 1 == ename + sizeof ename);

}  // namespace tessra

#endif
