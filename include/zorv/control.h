/* SPDX-License-Identifier: MIT
 *
 * The messages of zorvd's control socket, in plain C. docs/control-protocol.md tells how they are
 * used. Integers are little-endian, structures have no hidden padding.
 *
 * A request is a zorv_ctl_request, then record_bytes of record, then, when ZORV_CTL_BUFFER_IN is
 * set, buffer_bytes of buffer. A reply is a zorv_ctl_reply, then record_bytes of record, then
 * buffer_bytes of buffer, then text_bytes of text for a person.
 */
#ifndef ZORV_CONTROL_H
#define ZORV_CONTROL_H

#include "zorv/abi.h"

#define ZORV_CTL_MAGIC 0x4c54435au /* "ZCTL" */
#define ZORV_CTL_VERSION 1u

/* Kinds of request. */
#define ZORV_CTL_IOCTL 1u /* a command of the driver */
#define ZORV_CTL_HOST                                                        \
  2u /* a ZORV_HOST_* request; arguments in the record, answer in the buffer \
      */

/* Flags of a request. */
#define ZORV_CTL_BUFFER_IN 1u  /* the buffer's bytes follow the record */
#define ZORV_CTL_BUFFER_OUT 2u /* what the driver writes to the buffer comes back */
/* GET_AND_CLR_BMP: the bits count as the client's when it says so with ZORV_HOST_CONFIRM; without
 * the flag, when it has read the reply. */
#define ZORV_CTL_HOLD 4u

#define ZORV_CTL_MAX_RECORD 65536u       /* bytes */
#define ZORV_CTL_MAX_BUFFER (512u << 20) /* bytes: 2^32 bits, the longest bitmap */
#define ZORV_CTL_MAX_TEXT 4096u          /* bytes */

struct zorv_ctl_request {
  uint32_t magic;
  uint16_t version;
  uint16_t kind;
  uint32_t command;      /* the driver's command number, or ZORV_HOST_* */
  uint32_t flags;        /* ZORV_CTL_BUFFER_* */
  uint64_t record_addr;  /* where the caller has the record */
  uint64_t buffer_addr;  /* where the caller has the buffer, as the record says */
  uint32_t record_bytes; /* 0: the caller's record cannot be read */
  uint32_t buffer_bytes; /* 0: no buffer, or one that cannot be reached */
  uint32_t reserved[2];  /* 0 */
};

struct zorv_ctl_reply {
  uint32_t magic;
  uint16_t version;
  uint16_t kind;          /* of the request, 0 when it could not be told */
  int32_t result;         /* 0 or more, or a negative errno */
  uint32_t record_bytes;  /* 0: the record was not written */
  uint32_t buffer_offset; /* where in the buffer the bytes belong */
  uint32_t buffer_bytes;
  uint32_t
      text_bytes; /* the last error that was logged for the command, in one line, without newline */
  uint32_t handout; /* with ZORV_CTL_HOLD: what the bits are called on this connection, or 0 */
};

ZORV_ABI_SIZE(zorv_ctl_request, 48);
ZORV_ABI_SIZE(zorv_ctl_reply, 32);

/* Host requests. Their arguments and answers are strings (u32 length, bytes) and numbers (u64),
 * one after the other, in this order: */
#define ZORV_HOST_INFO 1u   /* -> version, run directory, control and NBD socket, number: pid */
#define ZORV_HOST_ATTACH 2u /* image path, name or "", number: 1 read-only -> the name used */
#define ZORV_HOST_DETACH 3u /* name */
#define ZORV_HOST_DISKS                                                                            \
  4u                           /* -> number of disks; each: name, path, numbers: bytes, read-only, \
                                  openers */
#define ZORV_HOST_PROC_LIST 5u /* path -> number of entries; each: name, number: st_mode */
#define ZORV_HOST_PROC_READ 6u /* path -> text */
#define ZORV_HOST_PROC_WRITE 7u /* path, text; result: bytes taken */
#define ZORV_HOST_CONFIRM 8u    /* number: a reply's handout, whose bits the client has */
#define ZORV_HOST_PUT_BACK 9u   /* number: a reply's handout, whose bits are to be merged back */

#endif
