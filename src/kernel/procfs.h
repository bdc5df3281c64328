// SPDX-License-Identifier: GPL-2.0-only
// The entry tree with read and write handlers, and the host's way to it.
//
// Removing an entry does not wait for handlers that are running: a reader keeps the entry (its
// name, its parent's name, its data) alive until it has returned, and a handler looks everything
// else up itself. So entries may be removed under locks that a handler takes.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/types.h"
#include "kernel/uaccess.h"

namespace kernel {

struct file;
struct proc_dir_entry;
using read_proc_t = int (*)(char* page, char** start, s64 offset, int count, int* eof, void* data);
using write_proc_t = int (*)(file* f, user_addr buffer, u64 count, void* data);

// The fields that a creator sets and a handler reads. The tree owns the entry. The creator fills in
// data and the handlers right after creation, data first: a reader may find the entry meanwhile
// and sees an empty text until the handler is there.
struct proc_dir_entry {
  std::string name;
  u32 mode = 0;                      // permission bits
  proc_dir_entry* parent = nullptr;  // null for an entry directly under /proc
  std::atomic<void*> data{nullptr};
  std::atomic<read_proc_t> read_proc{nullptr};
  std::atomic<write_proc_t> write_proc{nullptr};
};

// Null when memory is short, the parent is gone or the name is taken.
[[nodiscard]] proc_dir_entry* proc_mkdir(const char* name, proc_dir_entry* parent);
[[nodiscard]] proc_dir_entry* create_proc_entry(const char* name, u32 mode, proc_dir_entry* parent);
// Removes one entry; a directory goes with all that is below it.
void remove_proc_entry(const char* name, proc_dir_entry* parent);
// Children in order of creation. A pointer is good until the entry is removed.
std::vector<proc_dir_entry*> proc_children(proc_dir_entry* parent);

// Decimal with an optional leading minus; *end is where parsing stopped; no digits gives 0.
s64 simple_strtol(const char* text, const char** end, u32 base);

// The host's side. Paths are below /proc: "zorv/debug".
struct proc_listing {
  std::string name;
  u32 mode;  // permission bits
  bool directory;
};
//   returns  0 | -ENOENT | -ENOTDIR (list) | -EISDIR (read, write) | -EACCES (write to a ro entry)
[[nodiscard]] int proc_list(std::string_view path, std::vector<proc_listing>* out);
[[nodiscard]] int proc_read(std::string_view path, std::string* out);
// Returns what the write handler returned (bytes taken or a negative errno).
[[nodiscard]] int proc_write(std::string_view path, std::string_view text);

}  // namespace kernel
