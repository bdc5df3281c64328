/* SPDX-License-Identifier: MIT
 *
 * libzorv: the commands of zorvd for programs.
 *
 *   zorv_handle *z = zorv_open(NULL);
 *   struct zorv_node_req req = {.minor = 0};
 *   if (z == NULL || zorv_ioctl(z, ZORV_START_NODE, &req) != 0) ...
 *
 * Unless said otherwise an operation returns 0 or more on success and -1 with errno set on
 * failure. ECONNRESET means that the daemon went away during the call: whether the command was
 * carried out is not known. The next call connects again.
 *
 * A handle may be used by several threads; their calls take turns. A program that wants commands
 * to run at the same time opens several handles.
 */
#ifndef ZORV_CLIENT_H
#define ZORV_CLIENT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "zorv/abi.h"

#if defined(__cplusplus)
extern "C" {
#endif

typedef struct zorv_handle zorv_handle;

/* Connects to the daemon; path NULL: zorv_default_socket(). Null on failure: ENOENT or
 * ECONNREFUSED when no daemon serves the path, EACCES, ENAMETOOLONG, ENOMEM. */
zorv_handle* zorv_open(const char* path);
/* The same with a limit from the beginning (see zorv_set_limit); ETIMEDOUT. */
zorv_handle* zorv_open_within(const char* path, unsigned milliseconds);
void zorv_close(zorv_handle* handle); /* NULL is accepted */

/* Where a daemon of this user listens by default: $ZORV_SOCKET, or control.sock in
 * $XDG_RUNTIME_DIR/zorv, for root in /run/zorv. 0, or -1 with ENAMETOOLONG. */
int zorv_default_socket(char* path, size_t bytes);

/* Without a limit (0, as at first) a call takes as long as its command. With one it fails with
 * ETIMEDOUT once the daemon has not been able for so long to say as little as that it is there; a
 * command that takes its time in a daemon that answers is waited for. What became of the command is
 * not known then; the next call connects again. */
void zorv_set_limit(zorv_handle* handle, unsigned milliseconds);

/* One command, as ioctl(2) on the control device would do it: the record is read from and written
 * to *record, the buffer of the bitmap commands is taken from the record's own `data` and `size`.
 * An address that cannot be read or written gives EFAULT. The buffer of a command that fills it
 * belongs to the call while it runs. */
int zorv_ioctl(zorv_handle* handle, uint32_t command, void* record);

/* ZORV_GET_AND_CLR_BMP hands out the only copy of its bits. With zorv_ioctl they are the program's
 * when the call returns. With zorv_take they stay the daemon's as well until zorv_confirm says that
 * they are safe; zorv_put_back, closing the handle, or the end of either process merges them back,
 * so that they count as changed again. *taken is for these two calls alone. ENOENT from them: the
 * connection was lost before and the bits were merged back. Any other error of zorv_confirm:
 * whether the daemon still has them is not known, so what was taken counts. */
int zorv_take(zorv_handle* handle, struct zorv_bmp_range_req* req, uint64_t* taken);
int zorv_confirm(zorv_handle* handle, uint64_t taken);
int zorv_put_back(zorv_handle* handle, uint64_t taken);

/* The daemon's reason for this handle's last failure, one line, "" when there is none. Good until
 * the next call with the handle. */
const char* zorv_last_error(zorv_handle* handle);

/* The error that the daemon logged while it carried out this handle's last command although the
 * command succeeded: a bitmap in place that could not be saved, a snapshot resumed that is not
 * valid. "" as a rule. Good until the next call with the handle. */
const char* zorv_last_remark(zorv_handle* handle);

/* "ZORV_START_NODE", or NULL for a number that is no command. */
const char* zorv_command_name(uint32_t command);

struct zorv_daemon {
  char version[64];
  char run_dir[ZORV_PATH_LEN];
  char control_socket[ZORV_PATH_LEN];
  char nbd_socket[ZORV_PATH_LEN];
  int64_t pid;
};
int zorv_daemon_info(zorv_handle* handle, struct zorv_daemon* info);

/* Image files, served as /dev/image/NAME. */
#define ZORV_ATTACH_READ_ONLY 1u
/* name NULL or "": the file's base name without its extension. used_name (may be NULL) receives
 * the name. ENOENT, EEXIST (name taken), EBUSY (attached elsewhere), EINVAL, or the open's error.
 */
int zorv_attach(zorv_handle* handle, const char* image, const char* name, unsigned flags,
                char used_name[ZORV_NAME_LEN]);
int zorv_detach(zorv_handle* handle, const char* name); /* ENOENT, EBUSY (open) */

struct zorv_disk {
  char name[ZORV_NAME_LEN];
  char path[ZORV_PATH_LEN];
  uint64_t size; /* bytes */
  uint32_t read_only;
  uint32_t openers;
};
/* *disks is freed with free(). */
int zorv_disks(zorv_handle* handle, struct zorv_disk** disks, size_t* count);

/* The status tree. Paths are below /proc: "zorv/debug". */
struct zorv_proc_entry {
  char name[ZORV_NAME_LEN];
  uint32_t mode; /* as st_mode: S_IFDIR or S_IFREG and permissions */
};
/* *entries is freed with free(). */
int zorv_proc_list(zorv_handle* handle, const char* path, struct zorv_proc_entry** entries,
                   size_t* count);
/* *text ends with NUL and is freed with free(). Returns its length. */
ssize_t zorv_proc_read(zorv_handle* handle, const char* path, char** text);
/* Returns the bytes taken. */
ssize_t zorv_proc_write(zorv_handle* handle, const char* path, const char* text, size_t bytes);

#if defined(__cplusplus)
}
#endif

#endif
