/* SPDX-License-Identifier: MIT
 *
 * A backup agent in miniature: for every started filter it takes the Incremental bitmap and lists
 * what a backup would have to read. Only when the "backup" is safe the bits are let go; when it
 * fails, or this program dies, they are merged back, and the next run reads the same extents again.
 *
 *   agent [SOCKET]
 */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zorv/client.h>

static int fail(zorv_handle* z, const char* what) {
  const char* reason = zorv_last_error(z);
  fprintf(stderr, "agent: %s: %s\n", what, *reason != '\0' ? reason : strerror(errno));
  return -1;
}

/* Reads what changed from the node's export. Here it only says what it would read. */
static int back_up(const struct zorv_info_req* node, const unsigned char* bitmap) {
  uint32_t e = 0;
  while (e < node->extent_cnt) {
    uint32_t first = e;
    while (e < node->extent_cnt && (bitmap[e / 8] >> (e % 8) & 1) != 0) ++e;
    if (e == first) {
      ++e;
      continue;
    }
    uint64_t begin = (uint64_t)first * node->extent_size;
    uint64_t end = (uint64_t)e * node->extent_size;
    if (end > node->dev_size) end = node->dev_size;
    if (printf("%s %" PRIu64 " %" PRIu64 "\n", node->name, begin, end - begin) < 0) return -1;
  }
  return fflush(stdout);
}

static int one_node(zorv_handle* z, uint32_t minor) {
  struct zorv_info_req node = {.minor = minor};
  if (zorv_ioctl(z, ZORV_GET_INFO, &node) != 0) {
    return errno == EINVAL ? 0 : fail(z, "info"); /* it has gone meanwhile */
  }
  if (node.dev_type != ZORV_DEV_FILTER || node.started == 0 || node.incr_bmp_clear != 0) return 0;
  unsigned char* bitmap = malloc(node.incr_bmp_size);
  if (bitmap == NULL) return fail(z, "memory");

  struct zorv_bmp_range_req req = {
      .minor = minor,
      .type = ZORV_BMP_INCREMENTAL,
      .size = node.incr_bmp_size,
      .data = (uint64_t)(uintptr_t)bitmap,
  };
  uint64_t taken;
  int rc = zorv_take(z, &req, &taken);
  if (rc != 0) {
    fail(z, "take the bitmap");
  } else if ((rc = back_up(&node, bitmap)) != 0) {
    fprintf(stderr, "agent: %s: the backup failed\n", node.name);
    if (zorv_put_back(z, taken) != 0) fail(z, "merge the bitmap back");
  } else if (zorv_confirm(z, taken) != 0) {
    fail(z, "confirm the bitmap");  // the next run reads these extents once more
  }
  free(bitmap);
  return rc;
}

int main(int argc, char** argv) {
  zorv_handle* z = zorv_open(argc > 1 ? argv[1] : NULL);
  if (z == NULL) {
    fprintf(stderr, "agent: no zorvd: %s\n", strerror(errno));
    return 1;
  }
  /* The status tree has every node; ZORV_GET_DEVICE_LIST ends at ZORV_LIST_LEN of them. */
  int rc = 0;
  struct zorv_proc_entry* nodes = NULL;
  size_t count = 0;
  if (zorv_proc_list(z, "zorv", &nodes, &count) != 0) rc = fail(z, "list");
  for (size_t i = 0; rc == 0 && i < count; ++i) {
    uint32_t minor;
    if (sscanf(nodes[i].name, "zorv%" SCNu32, &minor) == 1) rc = one_node(z, minor);
  }
  free(nodes);
  zorv_close(z);
  return rc == 0 ? 0 : 1;
}
