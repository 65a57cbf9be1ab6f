// Private names of errExit(), fatal() and lockRegion() for the other files of this folder.
#ifndef TESSRA_MISC_PRIVATE_H
#define TESSRA_MISC_PRIVATE_H

namespace tessra {

[[noreturn]] __attribute__((format(printf, 1, 2))) void exit_with_errno(const char* format, ...);
[[noreturn]] __attribute__((format(printf, 1, 2))) void exit_with_line(const char* format, ...);
int lock_region(int fd, int type, int whence, int start, int len);

}  // namespace tessra

#endif
