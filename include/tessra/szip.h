/**
 * @file szip.h
 * Streaming ZIP writer: an archive whose exact size is known before its first byte.
 *
 * szip_create_info() turns a list of paths into a plan. szip_calc_size() returns the size of the
 * archive. szip_stream_zip() writes the archive and never seeks, so it can write to a socket or a
 * pipe. szip_free_info() frees the plan. A plan may be streamed any number of times.
 *
 * The format is the .ZIP file format of PKWARE's APPNOTE.TXT, in one narrow profile:
 * - Each entry is stored, not compressed.
 * - CRC-32 and sizes follow the data in a data descriptor, and are in the central directory.
 * - Names are the raw bytes of the paths. Time stamps are local time.
 * - Attributes and comments are absent.
 *
 * The whole archive uses ZIP64 records if a file has 4 GiB or more, if there are more than 65535
 * entries, or if the archive would otherwise be longer than 0xFFFFFFFF bytes.
 *
 * Readers that start from the central directory accept plain archives. Some of them refuse ZIP64
 * archives, whose locator gives 0 as the number of disks. None of them finds an entry that begins
 * at byte 0xFFFFFFFF exactly, since they take this offset for the marker that refers to the extra
 * field. Readers that start from the front may refuse all archives, since they can't know where a
 * stored entry with a descriptor ends.
 *
 * A time stamp before 1980 keeps month, day and time, but its year becomes 1980. Years after 2107
 * wrap around. A time stamp that localtime_r() can't convert becomes the first of January 1980.
 *
 * Threads: there is no shared state; any number of threads may each use plans of their own. A plan
 * has no lock, and a stream writes to it: only one thread at a time may use it.
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
 * Takes the next @p count bytes of the archive.
 *
 * @param arg    the @c warg of szip_stream_zip()
 * @param buf    the bytes; valid only during the call
 * @param count  the number of bytes, at least 1
 *
 * Returns @p count. Any other result, even a positive number, stops the stream: the library doesn't
 * continue a partial write.
 *
 * Each call takes one record of the archive; records are never merged. They come in this order,
 * with the sizes in bytes:
 * - For each entry: header (30), name, extra field (20; only ZIP64), data in chunks, descriptor
 *   (16; ZIP64 24).
 * - For each entry: directory header (46), name, extra field (28; only ZIP64).
 * - Only ZIP64: ZIP64 end record (56) and locator (20).
 * - End record (22).
 */
typedef ssize_t (*szip_write_func)(void* arg, const void* buf, size_t count);

/**
 * Plans an archive: reads the kind, size and modification time of each path.
 *
 * @param files     paths of files and directories, each absolute or relative to @p base; only read
 *     during the call. A link is archived as the file that it points to. A directory is an entry
 *     without contents: the call adds neither its files and subdirectories nor its parents.
 * @param numfiles  the number of paths, at least 1
 * @param base      the directory where relative paths start. It starts itself at the root of the
 *     file system, never at the working directory.
 * @param zbase     the leading part of the full path that doesn't go into the archive, with or
 *     without its first slash. It is compared byte for byte: no path is normalised, and no link is
 *     resolved. "" or "/" keeps the whole path except for its first slash, or its first two.
 *
 * Returns the plan, which the caller frees with szip_free_info(). Returns null after a failure.
 * Then nothing stays allocated, and @c errno is one of these:
 * - @c EINVAL: an argument or a path is null, @p numfiles is 0, or a path is @p zbase itself or
 *   doesn't lie under @p zbase.
 * - The error of stat(): stat() has failed for a path.
 * - @c ENAMETOOLONG: a full path has more than 4095 bytes.
 * - @c EFBIG: the archive would be longer than 2^63 - 1 bytes.
 * - @c ENOMEM: memory is short, or the address space is too small for @p numfiles entries.
 *
 * If time_t has 32 bits, a time stamp before 13 December 1901 or from 19 January 2038 doesn't fit:
 * stat() fails with @c EOVERFLOW (glibc), or returns a time wrong by 2^32 seconds (uClibc).
 *
 * Names longer than 65535 bytes can't occur. The same path may be given twice. A file that is
 * neither regular nor a directory is planned with the size that stat() returns, usually 0. Files of
 * /sys report a size that they don't have, so every stream treats them as shrunken.
 * Memory: one block with about 32 bytes per entry on 32-bit systems and 48 on 64-bit ones, and a
 * block for each full path; 4096 bytes more during the call.
 * Blocks: in stat().
 */
szip_info_t* szip_create_info(const char** files, unsigned int numfiles, const char* base,
                              const char* zbase);

/**
 * Computes the exact size of a planned archive.
 *
 * @param info  plan, or null
 * @param cdir  0 for the whole archive, any other number for its central directory only
 *
 * Returns the size in bytes; 0 if @p info is null. Every stream that succeeds has this size.
 * The call allocates nothing, changes nothing and can't fail.
 */
u_int64_t szip_calc_size(szip_info_t* info, int cdir);

/**
 * Writes the archive.
 *
 * @param info        plan; the call changes only the checksums that the plan notes
 * @param szip_write  takes the bytes
 * @param warg        handed to @p szip_write
 * @param chunk_size  size of the read buffer in bytes, and so of the largest write of data; at
 *     least 1. 65536 is a good size. A multiple of 4096 keeps reads aligned.
 *
 * Returns 1 if the whole archive was written. Returns 0 after any of these failures:
 * - @p info or @p szip_write is null, or @p chunk_size is 0. Nothing was written, and @c errno is
 *   @c EINVAL.
 * - @p szip_write returned another number than its @c count.
 * - A file can't be opened or read, or has shrunk.
 * - There is no memory for the buffer.
 *
 * After a failure the bytes written so far are no archive, and the stream can't be resumed; the
 * plan can be streamed again from the start. @c errno is as the failed call left it. After a
 * success, and for a shrunken file or a partial write, @c errno has no meaning.
 *
 * The plan has the sizes that stat() returned. If a file has grown since then, the stream sends the
 * planned bytes. If a file has shrunk, the stream fills its entry up with zeros, ignores the
 * results of these writes, and returns 0. A read that fails stops the stream at once. A file with a
 * planned size of 0 isn't opened. A FIFO in the place of a file never delays the stream: it reads
 * the bytes that are in the FIFO, and then finds the end or an error.
 *
 * Memory: one buffer of @p chunk_size bytes at a time. The first call of localtime_r() in a process
 * also allocates memory, for the time zone. Blocks: in read() and in @p szip_write. Writing to a
 * connection whose other end is closed raises SIGPIPE, unless the process ignores it.
 */
int szip_stream_zip(szip_info_t* info, szip_write_func szip_write, void* warg,
                    unsigned int chunk_size);

/**
 * Writes the archive as szip_stream_zip() does, to the descriptor @p fd, with one write() for each
 * record or chunk.
 *
 * A partial write stops the stream. So @p fd should be blocking, and no signal handler may run on
 * the calling thread before the call returns. A handler interrupts a write() that waits for room in
 * a pipe or a socket, and then write() returns the number of bytes already written. SA_RESTART
 * doesn't change that, and the library's own handler, of event_signal_add(), is no exception. There
 * are two solutions: block the signals on the thread, or stream with a function that goes on after
 * a partial write.
 *
 * ```c
 * #include <errno.h>
 * #include <pthread.h>
 * #include <signal.h>
 * #include <tessra/szip.h>
 * #include <unistd.h>
 *
 * // Signals that arrive meanwhile are delivered at the end, or to another thread.
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

/** Frees a plan. Does nothing for null. Leaves @c errno as it was. */
void szip_free_info(szip_info_t* info);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
