// SPDX-License-Identifier: GPL-2.0-only
#include "host/control/host_requests.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "host/disk/disk.h"
#include "host/version.h"
#include "kernel/procfs.h"
#include "zorv/control.h"
#include "zorv/wire.h"

namespace zorv {
namespace {

int bad_arguments(std::string* error) {
  *error = "the request's arguments cannot be read";
  return -EBADMSG;
}

int info(const control_options& options, wire::writer* out) {
  out->str(version_text)
      .str(options.run_dir)
      .str(options.socket_path)
      .str(options.nbd_socket_path)
      .num(static_cast<std::uint64_t>(::getpid()));
  return 0;
}

int attach(wire::reader in, wire::writer* out, std::string* error) {
  const std::string path(in.str());
  const std::string name(in.str());
  const std::uint64_t read_only = in.num();
  if (!in.done() || read_only > 1) return bad_arguments(error);
  std::string used;
  const int rc = image_attach(path, name, read_only != 0 ? access::read_only : access::read_write,
                              error, &used);
  if (rc == 0) out->str(used);
  return rc;
}

int detach(wire::reader in, std::string* error) {
  const std::string name(in.str());
  if (!in.done()) return bad_arguments(error);
  return image_detach(name, error);
}

int disks(wire::writer* out) {
  const std::vector<attached_disk> all = image_list();
  out->num(all.size());
  for (const attached_disk& disk : all) {
    out->str(disk.name)
        .str(disk.path)
        .num(disk.size_bytes)
        .num(disk.read_only ? 1 : 0)
        .num(static_cast<std::uint64_t>(disk.openers));
  }
  return 0;
}

int proc_entries(wire::reader in, wire::writer* out, std::string* error) {
  const std::string path(in.str());
  if (!in.done()) return bad_arguments(error);
  std::vector<kernel::proc_listing> entries;
  const int rc = kernel::proc_list(path, &entries);
  if (rc < 0) return rc;
  out->num(entries.size());
  for (const kernel::proc_listing& entry : entries) {
    out->str(entry.name).num((entry.directory ? S_IFDIR : S_IFREG) | (entry.mode & 07777U));
  }
  return 0;
}

int proc_text(wire::reader in, wire::writer* out, std::string* error) {
  const std::string path(in.str());
  if (!in.done()) return bad_arguments(error);
  std::string text;
  const int rc = kernel::proc_read(path, &text);
  if (rc < 0) return rc;
  out->str(text);
  return 0;
}

int proc_change(wire::reader in, std::string* error) {
  const std::string path(in.str());
  const std::string_view text = in.str();
  if (!in.done()) return bad_arguments(error);
  return kernel::proc_write(path, text);
}

}  // namespace

int host_request(std::uint32_t what, std::string_view arguments, const control_options& options,
                 std::string* answer, std::string* error) {
  wire::writer out;
  const wire::reader in(arguments);
  int rc = 0;
  switch (what) {
    case ZORV_HOST_INFO:
      rc = info(options, &out);
      break;
    case ZORV_HOST_ATTACH:
      rc = attach(in, &out, error);
      break;
    case ZORV_HOST_DETACH:
      rc = detach(in, error);
      break;
    case ZORV_HOST_DISKS:
      rc = disks(&out);
      break;
    case ZORV_HOST_PROC_LIST:
      rc = proc_entries(in, &out, error);
      break;
    case ZORV_HOST_PROC_READ:
      rc = proc_text(in, &out, error);
      break;
    case ZORV_HOST_PROC_WRITE:
      rc = proc_change(in, error);
      break;
    default:
      *error = "unknown host request";
      rc = -ENOTTY;
  }
  *answer = out.bytes();
  return rc;
}

}  // namespace zorv
