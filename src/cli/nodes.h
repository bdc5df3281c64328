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

// The record's fields for its type under their names.
[[nodiscard]] json info_document(const zorv_info_req& info);

// What a snapshot's COW files tell, where they can be read from here.
struct cow_progress {
  std::optional<std::uint64_t> copied_bytes;     // chunks that are marked as copied
  std::optional<std::uint64_t> allocated_bytes;  // what the COW data file takes on disk
};
[[nodiscard]] cow_progress snap_progress(const zorv_info_req& info);

// Requests that wait in a filter's COW queue, by the status tree.
[[nodiscard]] std::optional<std::uint64_t> queue_length(session& s, std::uint32_t filter_minor);

// What is wrong with a filter's bitmap files, by the status tree; lines, "" when nothing is.
[[nodiscard]] std::string bitmap_trouble(session& s, std::uint32_t filter_minor);

// The minor of a snap's filter, by the status tree.
[[nodiscard]] std::optional<std::uint32_t> filter_of(session& s, std::uint32_t snap_minor);

// "nbd+unix:///NAME?socket=PATH"
[[nodiscard]] std::string node_uri(session& s, const zorv_info_req& info);

}  // namespace zorv::cli
