// SPDX-License-Identifier: GPL-2.0-only
// Finding nodes and what is known about them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/cli.h"

namespace zorv::cli {

// A command that sends one number with a node and has nothing to print but that it is done.
struct simple_command {
  const char* name;
  std::uint32_t number;
  const char* help;
  const char* done;  // "started"
};

// How a node is named on the command line.
inline constexpr char node_help[] = "name, :MINOR, or --minor N in its place";

// The minor of NODE: ":1" is minor 1, "1" too unless a node has that name. Throws when it is not
// one node for sure.
[[nodiscard]] std::uint32_t find_node(session& s, const std::string& node);

[[nodiscard]] zorv_info_req node_info(session& s, std::uint32_t minor);
[[nodiscard]] zorv_info_req node_info(session& s, const std::string& node);
// The same, which must be of that type. Throws the refusal that the driver would give.
[[nodiscard]] zorv_info_req filter_info(session& s, const std::string& node);

// Nodes of the type (0: both, filters first), by minor. A node that goes meanwhile is left out.
[[nodiscard]] std::vector<zorv_info_req> all_nodes(session& s, std::uint32_t dev_type);

// The node as it is now, or nothing when it is gone, another of its minor included.
[[nodiscard]] std::optional<zorv_info_req> still(session& s, const zorv_info_req& node);

// Asks the person at the terminal, if there is one, about the node. Throws unless the answer is
// yes and it is still that node.
//   otherwise  what holds then: "nothing was deleted"
void ask(session& s, const zorv_info_req& node, const std::string& question,
         const std::string& otherwise);

// The record's fields for its type under their names.
[[nodiscard]] json info_document(const zorv_info_req& info);

// What a snapshot's COW files hold, by the status tree: the files may be where everything hangs.
// Nothing before its first start or resume.
[[nodiscard]] std::optional<std::uint64_t> copied_bytes(session& s, std::uint32_t snap_minor);

// Requests that wait in a filter's COW queue, by the status tree.
[[nodiscard]] std::optional<std::uint64_t> queue_length(session& s, std::uint32_t filter_minor);

// Extents that a filter's bitmap counts as changed, by the status tree; the daemon reads the whole
// bitmap for it.
//   entry    "incr_bmp_changed" | "diff_bmp_changed"
[[nodiscard]] std::optional<std::uint64_t> changed_extents(session& s, std::uint32_t filter_minor,
                                                           const char* entry);

// What is wrong with a filter's bitmap files, by the status tree; lines, "" when nothing is.
[[nodiscard]] std::string bitmap_trouble(session& s, std::uint32_t filter_minor);

// The minor of a snap's filter, by the status tree.
[[nodiscard]] std::optional<std::uint32_t> filter_of(session& s, std::uint32_t snap_minor);

// "nbd+unix:///NAME?socket=PATH"
[[nodiscard]] std::string node_uri(session& s, const zorv_info_req& info);

}  // namespace zorv::cli
