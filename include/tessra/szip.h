/**
 * @file szip.h
 * Streaming ZIP writer: an archive whose exact size is known before its first byte.
 *
 * szip_create_info() turns a list of paths into a plan, szip_calc_size() tells how long the archive
 * will be, szip_stream_zip() writes it strictly forward, so that a socket or a pipe will do, and
 * szip_free_info() releases the plan. A plan may be streamed any number of times.
 *
 * The format is the .ZIP file format of PKWARE's APPNOTE.TXT, in one narrow profile: each entry is
 * stored, not compressed; CRC-32 and sizes follow the data in a data descriptor and stand in the
 * central directory; names are the raw bytes of the paths, time stamps are local time, attributes
 * and comments are absent. ZIP64 records are used for the whole archive if a file has 4 GiB or
 * more, if there are more than 65535 entries, or if the archive would otherwise pass 0xFFFFFFFF
 * bytes. Readers that work from the central directory take plain archives. Some of them refuse the
 * ZIP64 ones, whose locator tells of 0 disks, and none finds an entry that begins at byte
 * 0xFFFFFFFF exactly, since they take this offset for the marker that refers to the extra field.
 * Readers that work from the front may refuse all, since they can't know where a stored entry with
 * a descriptor ends.
 *
 * Time stamps before 1980 keep month, day and time but turn into 1980, those after 2107 wrap
 * around, and those that localtime_r() can't tell become the first of January 1980.
 *
 * Threads: no shared state; any number of plans on any number of threads. A plan has no lock and
 * belongs to one thread at a time, and a stream writes to it.
 */
#ifndef TESSRA_SZIP_H
#define TESSRA_SZIP_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** A planned archive. Opaque. */
typedef struct szip_info szip_info_t;

/**
 * Takes @p count bytes of the archive.
 *
 * @param arg    the @c warg of szip_stream_zip()
 * @param buf    the bytes; valid during the call only
 * @param count  how many, at least 1
 * @return @p count. Anything else, a positive number too, ends the stream: nothing continues a
 *     partial write.
 *
 * The records of the archive come one a call and are never merged: for each entry its header (30
 * bytes), name, extra field (20; ZIP64 only), data in chunks, descriptor (16, ZIP64 24); then for
 * each entry its directory header (46), name, extra field (28; ZIP64 only); then, ZIP64 only, end
 * record (56) and locator (20); last the end record (22).
 */
typedef ssize_t (*szip_write_func)(void* arg, const void* buf, size_t count);

/**
 * Plans an archive: asks for the kind, size and modification time of each path.
 *
 * @param files     paths of files and directories, each absolute or relative to @p base; only read
 *     during the call. A link is archived as what it points to. A directory is an entry without
 *     contents: neither what is in it nor its parents are added.
 * @param numfiles  how many, at least 1
 * @param base      the directory that relative paths start from; itself counted from the root of
 *     the file system, never from the working directory
 * @param zbase     the leading part of the full path that doesn't go into the archive, with or
 *     without its first slash. Compared byte for byte: no path is normalised, and links aren't
 *     resolved. "" or "/" keeps the whole path but its first slash, or two of them.
 * @return the plan, owned by the caller until szip_free_info(). Null if an argument or a path is
 *     null or @p numfiles is 0 (@c EINVAL); if stat() fails for a path, with its @c errno; if a
 *     full path has more than 4095 bytes (@c ENAMETOOLONG); if a path doesn't lie under @p zbase or
 *     is @p zbase itself (@c EINVAL); if the archive would be longer than 2^63 - 1 bytes
 *     (@c EFBIG); if memory is short or too small for @p numfiles entries (@c ENOMEM). Then nothing
 *     stays allocated.
 *
 * Where time_t has 32 bits, a time stamp before 13 December 1901 or from 19 January 2038 doesn't
 * fit: stat() fails with @c EOVERFLOW (glibc), or gives a time wrong by 2^32 seconds (uClibc).
 *
 * Names longer than 65535 bytes can't occur, and the same path may be named twice. A file that is
 * neither regular nor a directory is planned with the size that stat() gives, usually 0. Files of
 * /sys, which tell a size that they don't have, count as shrunken in every stream.
 * Memory: one block of about 32 bytes per entry on 32 bits and 48 on 64, and each full path; 4096
 * bytes more during the call.
 * Blocks: in stat().
 */
szip_info_t* szip_create_info(const char** files, unsigned int numfiles, const char* base,
                              const char* zbase);

/**
 * Tells the exact size of a planned archive.
 *
 * @param info  plan, or null
 * @param cdir  0 for the whole archive, anything else for its central directory alone
 * @return the size in bytes, 0 if @p info is null. It holds for every stream that succeeds.
 *
 * Allocates nothing, changes nothing, can't fail.
 */
u_int64_t szip_calc_size(szip_info_t* info, int cdir);

/**
 * Writes the archive.
 *
 * @param info        plan; changes only in the checksums that it notes
 * @param szip_write  takes the bytes
 * @param warg        handed to @p szip_write
 * @param chunk_size  size of the read buffer in bytes and so of the largest data write, at least 1.
 *     65536 is a good one; a multiple of 4096 keeps reads aligned.
 * @return 1 if the archive was written to its end. 0 on any failure: a null @p info or
 *     @p szip_write or a @p chunk_size of 0 (nothing was written, @c EINVAL); a write that took
 *     less than asked; a file that can't be opened or read; memory for the buffer. What was
 *     written so far is then no archive, and there is no resuming; the plan can be streamed again,
 *     from the start. @c errno is what the failed call left; of a shrunken file, and of a write
 *     that fell short, and after a success, it says nothing.
 *
 * The plan is a promise made from what stat() said. Of a file that has grown since, the planned
 * bytes are sent. The entry of one that has shrunk is filled up with zeros, whatever becomes of
 * those writes, then the stream ends with 0. A read that fails ends it at once. An entry planned
 * with no bytes isn't opened. A FIFO that took a file's place never holds the stream up: it gives
 * what is in it and then ends or fails.
 *
 * Memory: one buffer of @p chunk_size bytes at a time. Blocks: in read() and in @p szip_write.
 * Writing to a connection whose other end has gone raises SIGPIPE, unless it is ignored.
 */
int szip_stream_zip(szip_info_t* info, szip_write_func szip_write, void* warg,
                    unsigned int chunk_size);

/**
 * szip_stream_zip() to the descriptor @p fd, one write() per piece.
 *
 * A partial write ends the stream, so @p fd should be blocking, and no signal handler may run on
 * the calling thread before the end. A handler interrupts a write() that waits for room in a pipe
 * or a socket, and then write() returns the number of bytes that have gone out. SA_RESTART doesn't
 * change that, and the library's own handler, of event_signal_add(), is no exception. There are two
 * ways out: block the signals on the thread, or stream with a function that goes on after a partial
 * write.
 *
 * ```c
 * #include <errno.h>
 * #include <pthread.h>
 * #include <signal.h>
 * #include <tessra/szip.h>
 * #include <unistd.h>
 *
 * // Signals that come meanwhile are delivered at the end, or to another thread.
 * int stream_with_signals_blocked(int fd, szip_info_t* info) {
 *     sigset_t all, before;
 *     sigfillset(&all);
 *     pthread_sigmask(SIG_SETMASK, &all, &before);
 *     const int whole = szip_stream_zip_fd(fd, info, 65536);
 *     pthread_sigmask(SIG_SETMASK, &before, NULL);
 *     return whole;
 * }
 *
 * static ssize_t write_all(void* fd, const void* buf, size_t count) {
 *     for (size_t done = 0; done < count;) {
 *         const ssize_t taken = write(*(int*)fd, (const char*)buf + done, count - done);
 *         if (taken >= 0)
 *             done += (size_t)taken;
 *         else if (errno != EINTR)
 *             return -1;
 *     }
 *     return (ssize_t)count;
 * }
 *
 * int stream_despite_signals(int fd, szip_info_t* info) {
 *     return szip_stream_zip(info, write_all, &fd, 65536);
 * }
 * ```
 */
int szip_stream_zip_fd(int fd, szip_info_t* info, unsigned int chunk_size);

/** Releases a plan. Null is allowed and does nothing; @c errno is left alone. */
void szip_free_info(szip_info_t* info);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
