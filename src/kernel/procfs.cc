// SPDX-License-Identifier: GPL-2.0-only
#include "kernel/procfs.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

#include "kernel/fault.h"
#include "kernel/mem.h"
#include "kernel/task.h"

namespace kernel {
namespace {

constexpr u32 permission_bits = 0777;

// A child keeps its parent, a parent lists its children; removal breaks the ring. Whoever runs a
// handler holds the entry, and through it every directory above.
struct proc_node : proc_dir_entry {
  bool directory = false;
  std::shared_ptr<proc_node> above;
  std::vector<std::shared_ptr<proc_node>> children;  // in order of creation
};
using node_ref = std::shared_ptr<proc_node>;

struct proc_tree {
  std::mutex lock;
  node_ref root = std::make_shared<proc_node>();
  // Entries that are in the tree, so that a stale pointer is recognised without following it.
  std::unordered_map<const proc_dir_entry*, node_ref> live;

  proc_tree() { root->directory = true; }

  node_ref directory_of(const proc_dir_entry* e) const {
    if (e == nullptr) return root;
    const auto it = live.find(e);
    return it != live.end() && it->second->directory ? it->second : nullptr;
  }
  static node_ref child(const proc_node& dir, std::string_view name) {
    const auto it = std::ranges::find_if(dir.children, [&](auto& c) { return c->name == name; });
    return it == dir.children.end() ? nullptr : *it;
  }
  node_ref find(std::string_view path) const {
    node_ref at = root;
    while (at != nullptr && !path.empty()) {
      const std::size_t slash = std::min(path.find('/'), path.size());
      const std::string_view part = path.substr(0, slash);
      path.remove_prefix(std::min(slash + 1, path.size()));
      if (!part.empty()) at = child(*at, part);
    }
    return at;
  }
  void forget(const node_ref& node) {
    for (const node_ref& c : node->children) forget(c);
    node->children.clear();
    live.erase(node.get());
  }
};

proc_tree& the_tree() {
  static proc_tree& tree = *new proc_tree;
  return tree;
}

node_ref lookup(std::string_view path) {
  auto& tree = the_tree();
  const std::scoped_lock guard(tree.lock);
  return tree.find(path);
}

proc_dir_entry* add_entry(const char* name, u32 mode, bool directory, proc_dir_entry* parent) {
  if (fault_check(fault_site::proc_create) != 0) return nullptr;
  auto& tree = the_tree();
  const std::scoped_lock guard(tree.lock);
  const node_ref dir = tree.directory_of(parent);
  if (dir == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr ||
      proc_tree::child(*dir, name) != nullptr) {
    return nullptr;
  }
  try {
    const auto node = std::make_shared<proc_node>();
    node->name = name;
    node->mode = mode & permission_bits;
    node->parent = parent;
    node->directory = directory;
    node->above = dir;
    dir->children.reserve(dir->children.size() + 1);
    tree.live.emplace(node.get(), node);
    dir->children.push_back(node);
    return node.get();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// The writer's bytes as a handler's caller memory: nothing else can be reached through it.
class text_space final : public user_space {
 public:
  explicit text_space(std::string_view text) : text_(text) {}
  [[nodiscard]] user_addr base() const { return reinterpret_cast<user_addr>(text_.data()); }

  bool read(void* to, user_addr from, std::size_t n) override {
    if (from < base() || from - base() > text_.size() || n > text_.size() - (from - base())) {
      return false;
    }
    std::memcpy(to, text_.data() + (from - base()), n);
    return true;
  }
  bool write(user_addr, const void*, std::size_t) override { return false; }

 private:
  std::string_view text_;
};

}  // namespace

proc_dir_entry* proc_mkdir(const char* name, proc_dir_entry* parent) {
  return add_entry(name, 0555, true, parent);
}

proc_dir_entry* create_proc_entry(const char* name, u32 mode, proc_dir_entry* parent) {
  return add_entry(name, mode, false, parent);
}

void remove_proc_entry(const char* name, proc_dir_entry* parent) {
  auto& tree = the_tree();
  const std::scoped_lock guard(tree.lock);
  const node_ref dir = tree.directory_of(parent);
  if (dir == nullptr) return;
  const node_ref node = proc_tree::child(*dir, name);
  if (node == nullptr) return;
  tree.forget(node);
  std::erase(dir->children, node);
}

std::vector<proc_dir_entry*> proc_children(proc_dir_entry* parent) {
  auto& tree = the_tree();
  const std::scoped_lock guard(tree.lock);
  std::vector<proc_dir_entry*> out;
  if (const node_ref dir = tree.directory_of(parent); dir != nullptr) {
    for (const node_ref& c : dir->children) out.push_back(c.get());
  }
  return out;
}

s64 simple_strtol(const char* text, const char** end, u32 base) {
  const bool negative = *text == '-';
  if (negative) text++;
  // Unsigned, because a number too big wraps and must not be undefined.
  u64 value = 0;
  while (*text >= '0' && *text <= '9' && static_cast<u32>(*text - '0') < base) {
    value = value * base + static_cast<u32>(*text++ - '0');
  }
  if (end != nullptr) *end = text;
  return static_cast<s64>(negative ? 0 - value : value);
}

int proc_list(std::string_view path, std::vector<proc_listing>* out) {
  auto& tree = the_tree();
  const std::scoped_lock guard(tree.lock);
  const node_ref dir = tree.find(path);
  if (dir == nullptr) return -ENOENT;
  if (!dir->directory) return -ENOTDIR;
  out->clear();
  for (const node_ref& c : dir->children) out->push_back({c->name, c->mode, c->directory});
  return 0;
}

int proc_read(std::string_view path, std::string* out) {
  might_sleep("proc_read");
  out->clear();
  const node_ref node = lookup(path);
  if (node == nullptr) return -ENOENT;
  if (node->directory) return -EISDIR;
  const read_proc_t handler = node->read_proc;
  if (handler == nullptr) return 0;  // its creator is still filling it in
  const kbuf<char> text(static_cast<char*>(kmalloc(page_size, GFP_KERNEL)));
  if (text == nullptr) return -ENOMEM;
  char* start = nullptr;
  int eof = 0;
  const int n = handler(text.get(), &start, 0, page_size, &eof, node->data);
  if (n < 0) return n;
  out->assign(text.get(), std::min<std::size_t>(static_cast<std::size_t>(n), page_size));
  return 0;
}

int proc_write(std::string_view path, std::string_view text) {
  might_sleep("proc_write");
  const node_ref node = lookup(path);
  if (node == nullptr) return -ENOENT;
  if (node->directory) return -EISDIR;
  const write_proc_t handler = node->write_proc;
  if ((node->mode & 0222U) == 0 || handler == nullptr) return -EACCES;
  // An empty text still has an address.
  text_space memory(text.data() != nullptr ? text : std::string_view(""));
  const user_space_scope scope(&memory);
  return handler(nullptr, memory.base(), text.size(), node->data);
}

}  // namespace kernel
