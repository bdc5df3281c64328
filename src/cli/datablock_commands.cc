// SPDX-License-Identifier: GPL-2.0-only
// Which parts of a snapshot hold data.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <limits>

#include "cli/bitmap_file.h"
#include "cli/cli.h"
#include "cli/nodes.h"
#include "cli/ranges.h"
#include "cli/text.h"

namespace zorv::cli {
namespace {

struct map_args {
  std::string node;
  std::string extent_size;
  std::string file;
};

struct map {
  zorv_info_req info;
  std::uint32_t extent_size = 0;
  std::vector<unsigned char> bits;
};

map get_map(session& s, const map_args& args) {
  map m;
  m.info = node_info(s, args.node);
  m.extent_size = static_cast<std::uint32_t>(
      parse_size(args.extent_size, std::numeric_limits<std::uint32_t>::max()));
  if (m.extent_size == 0) throw failure(status_usage, 0, "--extent-size must not be 0");
  const std::uint64_t extents = (m.info.dev_size + m.extent_size - 1) / m.extent_size;
  // A size that the driver refuses needs no room: the refusal is the driver's to give.
  const bool refused = m.info.dev_type != ZORV_DEV_SNAP || m.extent_size < m.info.chunk_size;
  m.bits.resize(refused ? 8 : (extents + 7) / 8);
  zorv_bmp_range_req req{};
  req.minor = m.info.minor;
  req.type = m.extent_size;
  req.size = static_cast<std::uint32_t>(m.bits.size());
  req.data = reinterpret_cast<std::uint64_t>(m.bits.data());
  s.command(ZORV_GET_DATABLOCK_BMP, &req);
  m.bits.resize(req.size);
  return m;
}

json head(const map& m) { return {{"minor", m.info.minor}, {"extent_size", m.extent_size}}; }

answer get(session& s, const map_args& args, bool as_json) {
  if (args.file.empty() && as_json) {
    const map m = get_map(s, args);
    json document = head(m);
    document["size"] = m.bits.size();
    document["data"] = base64(m.bits);
    return {std::move(document), ""};
  }
  bitmap_sink sink(args.file);
  const map m = get_map(s, args);
  sink.write(m.bits);
  json document = head(m);
  document["size"] = m.bits.size();
  document["file"] = args.file;
  return {std::move(document), ""};
}

answer show(session& s, const map_args& args) {
  const map m = get_map(s, args);
  return show_ranges(set_ranges(m.bits, m.extent_size, m.info.dev_size), m.info.dev_size, head(m));
}

answer test(session& s, const std::string& device) {
  zorv_test_datablock_req req{};
  const bool image = device.find('/') == std::string::npos;
  fill(req.hdd_name, image ? "/dev/image/" + device : absolute_path(device), "DEVICE");
  const int error = s.try_command(ZORV_TEST_DATABLOCK, &req);
  // The driver does not call this an error: there is nothing to test.
  if (error == EINVAL && *zorv_last_error(s.handle()) == '\0') {
    throw failure(status_refused, error, "no file system is recognised on " + device);
  }
  errno = error;
  s.check(error == 0 ? 0 : -1, "ZORV_TEST_DATABLOCK");
  return {{{"hdd_name", field(req.hdd_name)}}, "the map of " + device + " is consistent\n"};
}

std::shared_ptr<map_args> add(CLI::App* parent, invocation* inv, const char* name, const char* help,
                              CLI::App** command,
                              const std::function<answer(session&, const map_args&)>& run) {
  auto args = std::make_shared<map_args>();
  *command =
      add_command(parent, inv, name, help, [args, run](session& s) { return run(s, *args); });
  (*command)
      ->add_option("SNAP", args->node, std::string("the snap node: ") + node_help)
      ->required();
  (*command)
      ->add_option("--extent-size", args->extent_size,
                   "bytes per bit, a power of two and at least the snap's chunk size")
      ->type_name("SIZE")
      ->required();
  return args;
}

}  // namespace

void add_datablock_commands(CLI::App* app, invocation* inv) {
  CLI::App* datablock =
      app->add_subcommand("datablock", "which parts of a snapshot's file system hold data");
  datablock->require_subcommand(1);
  datablock->fallthrough();
  CLI::App* command = nullptr;
  auto args = add(datablock, inv, "get", "read the map as a bitmap", &command,
                  [inv](session& s, const map_args& a) { return get(s, a, inv->as_json); });
  add_output_option(command, &args->file);
  add(datablock, inv, "show", "list the ranges that hold data: offset and length in bytes",
      &command, show);
  auto device = std::make_shared<std::string>();
  add_command(datablock, inv, "test", "check the map of a disk that is not mounted",
              [device](session& s) { return test(s, *device); })
      ->add_option("DEVICE", *device, "an attached image or a host block device's path")
      ->required();
}

}  // namespace zorv::cli
