// SPDX-License-Identifier: GPL-2.0-only
// What is the daemon's: images and the status tree.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "cli/cli.h"
#include "cli/text.h"

namespace zorv::cli {
namespace {

template <class T>
using c_array = std::unique_ptr<T, decltype(&std::free)>;

struct attach_args {
  std::string image;
  std::string name;
  bool read_only = false;
};

answer attach(session& s, const attach_args& args) {
  char name[ZORV_NAME_LEN];
  s.check(zorv_attach(s.handle(), absolute_path(args.image).c_str(), args.name.c_str(),
                      args.read_only ? ZORV_ATTACH_READ_ONLY : 0, name),
          "attach");
  const std::string device = std::string("/dev/image/") + name;
  return {{{"name", name}, {"device", device}}, device + "\n"};
}

answer detach(session& s, const std::string& name) {
  static constexpr std::string_view dir = "/dev/image/";
  const std::string plain = name.rfind(dir, 0) == 0 ? name.substr(dir.size()) : name;
  s.check(zorv_detach(s.handle(), plain.c_str()), "detach");
  return {{{"name", plain}}, "detached " + plain + "\n"};
}

answer disks(session& s) {
  zorv_disk* list = nullptr;
  std::size_t count = 0;
  s.check(zorv_disks(s.handle(), &list, &count), "disks");
  const c_array<zorv_disk> owner(list, std::free);
  table rows({"NAME", ">SIZE", "ACCESS", ">OPEN", "IMAGE"});
  json documents = json::array();
  for (std::size_t i = 0; i < count; ++i) {
    const zorv_disk& d = list[i];
    rows.row({d.name, show_size(d.size), d.read_only != 0 ? "read-only" : "read-write",
              std::to_string(d.openers), d.path});
    documents.push_back({{"name", d.name},
                         {"path", d.path},
                         {"size", d.size},
                         {"read_only", d.read_only != 0},
                         {"openers", d.openers}});
  }
  return {std::move(documents), count == 0 ? "no disks\n" : rows.text()};
}

// Paths may be given from the root, from /proc or from the tree's own directory.
std::string tree_path(std::string path) {
  if (path.rfind("/proc/", 0) == 0) path.erase(0, 6);
  while (!path.empty() && path.back() == '/') path.pop_back();
  if (path.empty()) return "zorv";
  return path == "zorv" || path.rfind("zorv/", 0) == 0 ? path : "zorv/" + path;
}

answer proc_ls(session& s, const std::string& path) {
  zorv_proc_entry* list = nullptr;
  std::size_t count = 0;
  s.check(zorv_proc_list(s.handle(), tree_path(path).c_str(), &list, &count), path.c_str());
  const c_array<zorv_proc_entry> owner(list, std::free);
  answer result;
  result.document = json::array();
  for (std::size_t i = 0; i < count; ++i) {
    const bool directory = S_ISDIR(list[i].mode);
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", list[i].mode & 07777U);
    result.document.push_back({{"name", list[i].name}, {"mode", mode}, {"directory", directory}});
    result.text += std::string(list[i].name) + (directory ? "/\n" : "\n");
  }
  return result;
}

answer proc_cat(session& s, const std::string& path) {
  char* text = nullptr;
  s.check(zorv_proc_read(s.handle(), tree_path(path).c_str(), &text), path.c_str());
  const c_array<char> owner(text, std::free);
  return {{{"path", "/proc/" + tree_path(path)}, {"text", text}}, text};
}

answer proc_write(session& s, const std::string& path, const std::string& text) {
  const ssize_t taken =
      zorv_proc_write(s.handle(), tree_path(path).c_str(), text.data(), text.size());
  s.check(taken, path.c_str());
  return {{{"path", "/proc/" + tree_path(path)}, {"written", taken}}, ""};
}

void add_proc_commands(CLI::App* app, invocation* inv) {
  CLI::App* proc = app->add_subcommand("proc", "the status tree");
  proc->require_subcommand(1);
  proc->fallthrough();
  auto path = std::make_shared<std::string>();
  auto text = std::make_shared<std::string>();
  add_command(proc, inv, "ls", "list a directory of the status tree", [path](session& s) {
    return proc_ls(s, *path);
  })->add_option("PATH", *path, "e.g. /proc/zorv/zorv0; default: /proc/zorv");
  add_command(proc, inv, "cat", "print an entry", [path](session& s) { return proc_cat(s, *path); })
      ->add_option("PATH", *path, "e.g. zorv0/uuid")
      ->required();
  CLI::App* write = add_command(proc, inv, "write", "write to an entry",
                                [path, text](session& s) { return proc_write(s, *path, *text); });
  write->add_option("PATH", *path, "e.g. debug")->required();
  write->add_option("TEXT", *text, "what to write")->required();
}

}  // namespace

void add_host_commands(CLI::App* app, invocation* inv) {
  auto args = std::make_shared<attach_args>();
  CLI::App* command = add_command(app, inv, "attach", "serve an image file as /dev/image/NAME",
                                  [args](session& s) { return attach(s, *args); });
  command->add_option("IMAGE", args->image, "the image file")->required();
  command->add_option("--name", args->name, "default: the file's name without extension")
      ->type_name("N");
  command->add_flag("--read-only", args->read_only, "refuse writes");
  auto name = std::make_shared<std::string>();
  add_command(app, inv, "detach", "stop serving an image file",
              [name](session& s) { return detach(s, *name); })
      ->add_option("NAME", *name, "NAME or /dev/image/NAME")
      ->required();
  add_command(app, inv, "disks", "list attached image files", disks);
  add_proc_commands(app, inv);
}

}  // namespace zorv::cli
