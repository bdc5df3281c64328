/* SPDX-License-Identifier: MIT
 *
 * The command numbers and argument records of the zorv control device, in plain C. Sizes and
 * offsets, padding included, are the interface; integers are little-endian, strings end with NUL.
 *
 * A command number is encoded as Linux ioctl numbers are: bits 0-7 the number, 8-15 the type 'C',
 * 16-29 the record's size in bytes, bit 30 "the caller passes data in", bit 31 "data comes back".
 */
#ifndef ZORV_ABI_H
#define ZORV_ABI_H

#include <stddef.h>
#include <stdint.h>

#if defined(__cplusplus)
#define ZORV_ABI_ASSERT(c, text) static_assert(c, text)
#else
#define ZORV_ABI_ASSERT(c, text) _Static_assert(c, text)
#endif

#define ZORV_ADD_FILTER_NODE 0xc8b04301u
#define ZORV_ADD_SNAP_NODE 0xc8b44302u
#define ZORV_DEL_NODE 0x40044303u
#define ZORV_START_NODE 0x40044304u
#define ZORV_STOP_NODE 0x40044305u
#define ZORV_GET_DEVICE_LIST 0xc4084306u
#define ZORV_GET_INFO 0xd9084307u
#define ZORV_LOAD_BMP 0x40084308u
#define ZORV_SAVE_BMP 0x40084309u
#define ZORV_CLR_BMP 0x4008430au
#define ZORV_SET_BMP 0x4018430bu
#define ZORV_MERGE_BMP 0x4018430cu
#define ZORV_GET_BMP 0xc018430du
#define ZORV_GET_AND_CLR_BMP 0xc018430eu
#define ZORV_GET_DATABLOCK_BMP 0xc018430fu
#define ZORV_TEST_DATABLOCK 0x44004310u
#define ZORV_RESUME_SNAP 0x40104311u

/* Device types. */
#define ZORV_DEV_FILTER 1u
#define ZORV_DEV_SNAP 2u

/* Bitmap type codes. */
#define ZORV_BMP_DIFFERENTIAL 0u
#define ZORV_BMP_INCREMENTAL 1u

#define ZORV_PATH_LEN 1024
#define ZORV_UUID_LEN 39
#define ZORV_NAME_LEN 128
#define ZORV_LIST_LEN 256

struct zorv_add_filter_req {
  char hdd_name[ZORV_PATH_LEN]; /* path of the HDD's device node */
  int32_t minor;                /* requested minor, negative: the lowest free one; out: used */
  uint32_t extent_size;         /* bytes per change-bitmap bit */
  char bmp_dir[ZORV_PATH_LEN];  /* directory of the bitmap files */
  char uuid[ZORV_UUID_LEN];     /* empty: generated; out: used */
  char name[ZORV_NAME_LEN];     /* empty: "zorv%d" of the minor; out: used */
  uint8_t pad;
};

struct zorv_add_snap_req {
  uint32_t filter_minor;
  int32_t snap_minor;  /* requested minor, negative: the lowest free one; out: used */
  uint32_t chunk_size; /* bytes; out: used (may be raised) */
  char cow_bmp_fname[ZORV_PATH_LEN];
  char cow_data_fname[ZORV_PATH_LEN];
  char uuid[ZORV_UUID_LEN];
  char name[ZORV_NAME_LEN];
  uint8_t pad;
};

/* DEL_NODE, START_NODE, STOP_NODE. */
struct zorv_node_req {
  uint32_t minor;
};

struct zorv_device_list_req {
  uint32_t dev_type; /* in: ZORV_DEV_* */
  uint32_t count;    /* out, at most 256 */
  uint32_t minors[ZORV_LIST_LEN];
};

struct zorv_info_req {
  uint32_t minor; /* in; all that follows is out */
  uint32_t dev_type;
  uint64_t dev_size; /* bytes */
  uint32_t started;
  uint32_t use_cnt;
  char uuid[ZORV_UUID_LEN];
  char name[ZORV_NAME_LEN];
  /* filled for a FILTER node */
  char hdd_name[ZORV_PATH_LEN];
  uint8_t pad0;
  uint32_t extent_size; /* bytes */
  uint32_t extent_cnt;
  uint32_t snap_minors[ZORV_LIST_LEN];
  uint32_t snap_cnt;
  uint32_t incr_bmp_size; /* bytes */
  uint32_t diff_bmp_size;
  char incr_bmp_fname[ZORV_PATH_LEN];
  char diff_bmp_fname[ZORV_PATH_LEN];
  uint32_t incr_bmp_clear; /* 1: no bit is set */
  uint32_t diff_bmp_clear;
  uint32_t incr_bmp_full; /* 1: every bit is set */
  uint32_t diff_bmp_full;
  /* filled for a SNAP node */
  uint32_t snap_valid;
  uint32_t stop_pending;
  uint32_t del_pending;
  uint32_t chunk_size; /* bytes */
  uint32_t chunk_cnt;  /* low 32 bits */
  uint32_t cow_bmp_size;
  uint8_t pad1[4];
  uint64_t cow_data_size;
  char cow_bmp_fname[ZORV_PATH_LEN];
  char cow_data_fname[ZORV_PATH_LEN];
};

/* LOAD_BMP, SAVE_BMP, CLR_BMP. */
struct zorv_bmp_req {
  uint32_t minor;
  uint32_t type; /* ZORV_BMP_* */
};

/* SET, MERGE, GET, GET_AND_CLR_BMP; GET_DATABLOCK_BMP (type: output extent size in bytes). */
struct zorv_bmp_range_req {
  uint32_t minor;
  uint32_t type;
  uint32_t size; /* bytes of the buffer */
  uint8_t pad[4];
  uint64_t data; /* address of the caller's buffer */
};

struct zorv_test_datablock_req {
  char hdd_name[ZORV_PATH_LEN];
};

struct zorv_resume_snap_req {
  uint32_t snap_minor;
  uint32_t snap_valid;
  uint32_t stop_pending;
  uint32_t del_pending;
};

#define ZORV_ABI_SIZE(type, bytes) \
  ZORV_ABI_ASSERT(sizeof(struct type) == (bytes), #type " has the wrong size")
#define ZORV_ABI_AT(type, field, offset) \
  ZORV_ABI_ASSERT(offsetof(struct type, field) == (offset), #type "." #field " is misplaced")
/* The size that a command number carries is its record's. */
#define ZORV_ABI_CMD(command, type)                                     \
  ZORV_ABI_ASSERT((((command) >> 16) & 0x3fffu) == sizeof(struct type), \
                  #command " has another size")

ZORV_ABI_SIZE(zorv_add_filter_req, 2224);
ZORV_ABI_AT(zorv_add_filter_req, minor, 1024);
ZORV_ABI_AT(zorv_add_filter_req, extent_size, 1028);
ZORV_ABI_AT(zorv_add_filter_req, bmp_dir, 1032);
ZORV_ABI_AT(zorv_add_filter_req, uuid, 2056);
ZORV_ABI_AT(zorv_add_filter_req, name, 2095);
ZORV_ABI_SIZE(zorv_add_snap_req, 2228);
ZORV_ABI_AT(zorv_add_snap_req, chunk_size, 8);
ZORV_ABI_AT(zorv_add_snap_req, cow_bmp_fname, 12);
ZORV_ABI_AT(zorv_add_snap_req, cow_data_fname, 1036);
ZORV_ABI_AT(zorv_add_snap_req, uuid, 2060);
ZORV_ABI_AT(zorv_add_snap_req, name, 2099);
ZORV_ABI_SIZE(zorv_node_req, 4);
ZORV_ABI_SIZE(zorv_device_list_req, 1032);
ZORV_ABI_AT(zorv_device_list_req, minors, 8);
ZORV_ABI_SIZE(zorv_info_req, 6408);
ZORV_ABI_AT(zorv_info_req, dev_size, 8);
ZORV_ABI_AT(zorv_info_req, uuid, 24);
ZORV_ABI_AT(zorv_info_req, name, 63);
ZORV_ABI_AT(zorv_info_req, hdd_name, 191);
ZORV_ABI_AT(zorv_info_req, extent_size, 1216);
ZORV_ABI_AT(zorv_info_req, snap_minors, 1224);
ZORV_ABI_AT(zorv_info_req, snap_cnt, 2248);
ZORV_ABI_AT(zorv_info_req, incr_bmp_fname, 2260);
ZORV_ABI_AT(zorv_info_req, diff_bmp_fname, 3284);
ZORV_ABI_AT(zorv_info_req, incr_bmp_clear, 4308);
ZORV_ABI_AT(zorv_info_req, incr_bmp_full, 4316);
ZORV_ABI_AT(zorv_info_req, snap_valid, 4324);
ZORV_ABI_AT(zorv_info_req, cow_bmp_size, 4344);
ZORV_ABI_AT(zorv_info_req, cow_data_size, 4352);
ZORV_ABI_AT(zorv_info_req, cow_bmp_fname, 4360);
ZORV_ABI_AT(zorv_info_req, cow_data_fname, 5384);
ZORV_ABI_SIZE(zorv_bmp_req, 8);
ZORV_ABI_SIZE(zorv_bmp_range_req, 24);
ZORV_ABI_AT(zorv_bmp_range_req, data, 16);
ZORV_ABI_SIZE(zorv_test_datablock_req, 1024);
ZORV_ABI_SIZE(zorv_resume_snap_req, 16);

ZORV_ABI_CMD(ZORV_ADD_FILTER_NODE, zorv_add_filter_req);
ZORV_ABI_CMD(ZORV_ADD_SNAP_NODE, zorv_add_snap_req);
ZORV_ABI_CMD(ZORV_DEL_NODE, zorv_node_req);
ZORV_ABI_CMD(ZORV_START_NODE, zorv_node_req);
ZORV_ABI_CMD(ZORV_STOP_NODE, zorv_node_req);
ZORV_ABI_CMD(ZORV_GET_DEVICE_LIST, zorv_device_list_req);
ZORV_ABI_CMD(ZORV_GET_INFO, zorv_info_req);
ZORV_ABI_CMD(ZORV_LOAD_BMP, zorv_bmp_req);
ZORV_ABI_CMD(ZORV_SAVE_BMP, zorv_bmp_req);
ZORV_ABI_CMD(ZORV_CLR_BMP, zorv_bmp_req);
ZORV_ABI_CMD(ZORV_SET_BMP, zorv_bmp_range_req);
ZORV_ABI_CMD(ZORV_MERGE_BMP, zorv_bmp_range_req);
ZORV_ABI_CMD(ZORV_GET_BMP, zorv_bmp_range_req);
ZORV_ABI_CMD(ZORV_GET_AND_CLR_BMP, zorv_bmp_range_req);
ZORV_ABI_CMD(ZORV_GET_DATABLOCK_BMP, zorv_bmp_range_req);
ZORV_ABI_CMD(ZORV_TEST_DATABLOCK, zorv_test_datablock_req);
ZORV_ABI_CMD(ZORV_RESUME_SNAP, zorv_resume_snap_req);

#endif
