// SPDX-License-Identifier: GPL-2.0-only
// The change bitmaps of a filter.
#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <optional>

#include "cli/bitmap_file.h"
#include "cli/cli.h"
#include "cli/nodes.h"
#include "cli/ranges.h"

namespace zorv::cli {
namespace {

const std::map<std::string, std::uint32_t> type_codes = {{"incr", ZORV_BMP_INCREMENTAL},
                                                         {"diff", ZORV_BMP_DIFFERENTIAL}};

struct bitmap_args {
  std::string node;
  std::string type;
  std::string file;
  bool given_file = false;
};

using bitmap = std::vector<unsigned char>;

std::size_t bitmap_bytes(const zorv_info_req& info, std::uint32_t type) {
  return type == ZORV_BMP_INCREMENTAL ? info.incr_bmp_size : info.diff_bmp_size;
}

zorv_bmp_range_req range_req(std::uint32_t minor, std::uint32_t type, bitmap* bits) {
  zorv_bmp_range_req req{};
  req.minor = minor;
  req.type = type;
  if (bits == nullptr) return req;
  req.size = static_cast<std::uint32_t>(bits->size());
  req.data = reinterpret_cast<std::uint64_t>(bits->data());
  return req;
}

json head(const zorv_info_req& info, const bitmap_args& args) {
  return {{"minor", info.minor}, {"type", args.type}};
}

// Bits that only this process and the daemon's hand-out have.
class taken_bitmap {
 public:
  taken_bitmap(session* s, zorv_bmp_range_req* req) : session_(s) {
    s->check(zorv_take(s->handle(), req, &handout_), zorv_command_name(ZORV_GET_AND_CLR_BMP));
  }
  // The output is complete and may be the only copy by now, so this is no failure: at worst zorvd
  // hands the same bits out once more.
  void confirm() const {
    if (zorv_confirm(session_->handle(), handout_) == 0) return;
    std::cerr << "zorvctl: the bitmap was written; zorvd did not answer that it knows and may hand "
                 "these bits out once more\n";
  }
  // What became of them, as the end of a sentence.
  [[nodiscard]] std::string put_back() const {
    return zorv_put_back(session_->handle(), handout_) == 0 || errno == ENOENT
               ? "; the bitmap was merged back"
               : "; the bitmap is merged back when zorvd notices";
  }

 private:
  session* session_;
  std::uint64_t handout_ = 0;
};

// Where the bits go before anybody else may forget them.
answer get(session& s, const bitmap_args& args, std::uint32_t number, bool as_json) {
  const zorv_info_req info = filter_info(s, args.node);
  const std::uint32_t type = type_codes.at(args.type);
  bitmap bits(bitmap_bytes(info, type));
  zorv_bmp_range_req req = range_req(info.minor, type, &bits);
  const bool takes = number == ZORV_GET_AND_CLR_BMP;
  answer result{head(info, args), ""};
  result.document["size"] = bits.size();
  std::optional<bitmap_sink> sink;
  if (!as_json || !args.file.empty()) sink.emplace(args.file);
  std::optional<taken_bitmap> taken;
  if (takes) {
    taken.emplace(&s, &req);
  } else {
    s.command(number, &req);
  }
  if (!sink) {
    result.document["data"] = base64(bits);
    if (takes) {
      result.delivered = [t = *taken] { t.confirm(); };
      result.undelivered = [t = *taken] { return t.put_back(); };
    }
    return result;
  }
  try {
    sink->write(bits);
  } catch (const failure& e) {
    throw failure(e.exit_status, e.number, e.what() + (takes ? taken->put_back() : ""));
  }
  if (takes) taken->confirm();
  result.document["file"] = args.file;
  return result;
}

// What the driver did may still have gone wrong in the bitmap's file.
answer done_to(const zorv_bmp_req& req, const bitmap_args& args, const char* done,
               const std::string& remark) {
  answer result{{{"minor", req.minor}, {"type", args.type}},
                std::string(done) + " " + args.type + " of " + args.node};
  if (!remark.empty()) {
    result.document["remark"] = remark;
    result.text += ", but " + remark;
  }
  result.text += "\n";
  return result;
}

answer put(session& s, const bitmap_args& args, std::uint32_t number, const char* done) {
  const zorv_info_req info = filter_info(s, args.node);
  const std::uint32_t type = type_codes.at(args.type);
  bitmap bits;
  zorv_bmp_range_req req = range_req(info.minor, type, nullptr);
  if (args.given_file) {
    bits = read_bitmap(args.file, bitmap_bytes(info, type));
    req = range_req(info.minor, type, &bits);
  }
  s.command(number, &req);
  return done_to({req.minor, req.type}, args, done, s.remark());
}

answer plain(session& s, const bitmap_args& args, std::uint32_t number, const char* done) {
  zorv_bmp_req req{};
  req.minor = find_node(s, args.node);
  req.type = type_codes.at(args.type);
  s.command(number, &req);
  const std::string remark = s.remark();
  if (number == ZORV_LOAD_BMP && !remark.empty()) {
    const zorv_info_req info = node_info(s, req.minor);
    const bool incr = req.type == ZORV_BMP_INCREMENTAL;
    if ((incr ? info.incr_bmp_full : info.diff_bmp_full) != 0) {
      throw failure(status_refused, 0, remark + " Everything counts as changed.");
    }
  }
  return done_to(req, args, done, remark);
}

answer show(session& s, const bitmap_args& args) {
  const zorv_info_req info = filter_info(s, args.node);
  const std::uint32_t type = type_codes.at(args.type);
  bitmap bits(bitmap_bytes(info, type));
  zorv_bmp_range_req req = range_req(info.minor, type, &bits);
  s.command(ZORV_GET_BMP, &req);
  json document = head(info, args);
  document["extent_size"] = info.extent_size;
  return show_ranges(set_ranges(bits, info.extent_size, info.dev_size), info.dev_size,
                     std::move(document));
}

std::shared_ptr<bitmap_args> add(CLI::App* parent, invocation* inv, const std::string& name,
                                 const std::string& help, CLI::App** command,
                                 const std::function<answer(session&, const bitmap_args&)>& run) {
  auto args = std::make_shared<bitmap_args>();
  *command =
      add_command(parent, inv, name, help, [args, run](session& s) { return run(s, *args); });
  (*command)
      ->add_option("NODE", args->node, std::string("the filter node: ") + node_help)
      ->required();
  (*command)
      ->add_option("TYPE", args->type, "incr (incremental) or diff (differential)")
      ->required()
      ->check(CLI::IsMember({"incr", "diff"}));
  return args;
}

void add_get(CLI::App* bmp, invocation* inv, const char* name, std::uint32_t number,
             const char* help) {
  CLI::App* command = nullptr;
  auto args = add(bmp, inv, name, help, &command, [number, inv](session& s, const bitmap_args& a) {
    return get(s, a, number, inv->as_json);
  });
  add_output_option(command, &args->file);
}

void add_put(CLI::App* bmp, invocation* inv, const char* name, std::uint32_t number,
             const char* done, const char* help) {
  CLI::App* command = nullptr;
  auto args = add(bmp, inv, name, help, &command, [number, done](session& s, const bitmap_args& a) {
    return put(s, a, number, done);
  });
  const bool all_without = number == ZORV_SET_BMP;
  command
      ->add_option_function<std::string>(
          "FILE",
          [args](const std::string& file) {
            args->file = file;
            args->given_file = true;
          },
          all_without ? "a raw bitmap, - for standard input; without it every extent is set"
                      : "a raw bitmap, - for standard input")
      ->required(!all_without);
}

}  // namespace

void add_bitmap_commands(CLI::App* app, invocation* inv) {
  CLI::App* bmp = app->add_subcommand("bmp", "the change bitmaps of a filter");
  bmp->require_subcommand(1);
  bmp->fallthrough();
  add_get(bmp, inv, "get", ZORV_GET_BMP, "read a bitmap");
  add_get(bmp, inv, "get-clear", ZORV_GET_AND_CLR_BMP,
          "read a bitmap and clear it, no change lost in between");
  add_put(bmp, inv, "set", ZORV_SET_BMP, "set", "replace a bitmap");
  add_put(bmp, inv, "merge", ZORV_MERGE_BMP, "merged into",
          "add the set bits of a file to a bitmap");
  static constexpr simple_command simple[] = {
      {"clear", ZORV_CLR_BMP, "mark every extent as unchanged", "cleared"},
      {"save", ZORV_SAVE_BMP, "write a bitmap to its file", "saved"},
      {"load", ZORV_LOAD_BMP, "read a bitmap from its file", "loaded"},
  };
  CLI::App* command = nullptr;
  for (const auto& c : simple) {
    add(bmp, inv, c.name, c.help, &command,
        [&c](session& s, const bitmap_args& a) { return plain(s, a, c.number, c.done); });
  }
  add(bmp, inv, "show", "list the changed ranges: offset and length in bytes", &command, show);
}

}  // namespace zorv::cli
