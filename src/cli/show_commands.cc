// SPDX-License-Identifier: GPL-2.0-only
// What a person wants to know about nodes.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <sstream>

#include "cli/cli.h"
#include "cli/nodes.h"
#include "cli/text.h"

namespace zorv::cli {
namespace {

// Names of the counts in the status tree and in the document.
constexpr char incr_changed[] = "incr_bmp_changed";
constexpr char diff_changed[] = "diff_bmp_changed";

std::string snap_state(const zorv_info_req& info) {
  std::string state = info.started != 0 ? (info.snap_valid != 0 ? "valid" : "INVALID") : "stopped";
  if (info.del_pending != 0) {
    state += ", delete pending";
  } else if (info.stop_pending != 0) {
    state += ", stop pending";
  }
  return state;
}

std::string state_of(const zorv_info_req& info) {
  if (info.dev_type == ZORV_DEV_SNAP) return snap_state(info);
  return info.started != 0 ? "started" : "stopped";
}

std::string size_or_dash(const std::optional<std::uint64_t>& bytes) {
  return bytes ? show_size(*bytes) : "-";
}

// The fields that the record does not have.
json full_document(session& s, const zorv_info_req& info) {
  json document = info_document(info);
  if (info.dev_type == ZORV_DEV_FILTER) {
    if (const auto length = queue_length(s, info.minor)) document["cowqueue_len"] = *length;
    const std::string trouble = bitmap_trouble(s, info.minor);
    if (!trouble.empty()) document["bmp_trouble"] = trouble;
    return document;
  }
  if (const auto filter = filter_of(s, info.minor)) document["filter_minor"] = *filter;
  if (const auto copied = copied_bytes(s, info.minor)) document["copied_bytes"] = *copied;
  return document;
}

// What a node stands over: a filter's disk, a snap's filter.
std::string below(session& s, const zorv_info_req& info, const json& document) {
  if (info.dev_type == ZORV_DEV_FILTER) return field(info.hdd_name);
  if (!document.contains("filter_minor")) return "-";
  zorv_info_req filter{};
  filter.minor = document["filter_minor"];
  return s.try_command(ZORV_GET_INFO, &filter) == 0 ? field(filter.name) : "-";
}

std::string size_cell(const json& document, const char* key) {
  return document.contains(key) ? show_size(document[key]) : "-";
}

answer list(session& s, const std::string& which) {
  const std::uint32_t type = which.empty()       ? 0
                             : which == "filter" ? ZORV_DEV_FILTER
                                                 : ZORV_DEV_SNAP;
  table rows(
      {">MINOR", "NAME", "TYPE", "STATE", ">SIZE", ">UNIT", ">OPEN", ">COPIED", ">QUEUE", "OVER"});
  json documents = json::array();
  std::string trouble;
  for (const zorv_info_req& info : all_nodes(s, type)) {
    json document = full_document(s, info);
    const bool filter = info.dev_type == ZORV_DEV_FILTER;
    rows.row({std::to_string(info.minor), field(info.name), filter ? "filter" : "snap",
              state_of(info), show_size(info.dev_size),
              show_size(filter ? info.extent_size : info.chunk_size), std::to_string(info.use_cnt),
              size_cell(document, "copied_bytes"),
              document.contains("cowqueue_len") ? document["cowqueue_len"].dump() : "-",
              below(s, info, document)});
    std::istringstream said(document.value("bmp_trouble", ""));
    for (std::string one; std::getline(said, one);)
      trouble += printable(field(info.name) + ": " + one) + "\n";
    documents.push_back(std::move(document));
  }
  const std::string text = documents.empty() ? "no nodes\n" : rows.text() + trouble;
  return {std::move(documents), text};
}

// "3 of 16384 extents changed (0.02 %)"; none and all of them have words of their own.
std::string bitmap_line(const json& document, const char* key) {
  if (!document.contains(key)) return "-";
  const auto changed = document[key].get<std::uint64_t>();
  const auto all = document["extent_cnt"].get<std::uint64_t>();
  if (changed == 0) return "nothing changed";
  if (changed >= all) return "everything changed";
  const double percent = 100.0 * static_cast<double>(changed) / static_cast<double>(all);
  char share[16];
  std::snprintf(share, sizeof share, "%.2f", std::clamp(percent, 0.01, 99.99));
  return std::to_string(changed) + " of " + std::to_string(all) + " extents changed (" + share +
         " %)";
}

std::string line(const char* label, const std::string& value) {
  std::string text = std::string("  ") + label;
  text.resize(16, ' ');
  return text + printable(value) + "\n";
}

std::string filter_text(session& s, const zorv_info_req& info, const json& document) {
  std::string snaps;
  for (std::uint32_t i = 0; i < info.snap_cnt && i < ZORV_LIST_LEN; ++i) {
    snaps += (i == 0 ? "" : " ") + std::to_string(info.snap_minors[i]);
  }
  return line("disk", field(info.hdd_name)) +
         line("extents", std::to_string(info.extent_cnt) + " of " + show_size(info.extent_size)) +
         line("incremental", bitmap_line(document, incr_changed)) +
         line("", field(info.incr_bmp_fname)) +
         line("differential", bitmap_line(document, diff_changed)) +
         line("", field(info.diff_bmp_fname)) +
         line("snaps", snaps.empty() ? "none" : "minors " + snaps) +
         line("queue", queue_length(s, info.minor).value_or(0) == 0
                           ? "empty"
                           : std::to_string(*queue_length(s, info.minor)) + " requests");
}

std::string snap_text(session& s, const zorv_info_req& info) {
  const auto filter = filter_of(s, info.minor);
  return line("filter", filter ? "minor " + std::to_string(*filter) : "-") +
         line("chunks", std::to_string(info.chunk_cnt) + " of " + show_size(info.chunk_size)) +
         line("copied", size_or_dash(copied_bytes(s, info.minor))) +
         line("COW data", field(info.cow_data_fname)) +
         line("", show_size(info.cow_data_size) + " long, with holes") +
         line("COW bitmap", field(info.cow_bmp_fname));
}

answer info(session& s, const std::string& node) {
  const zorv_info_req record = node_info(s, node);
  json document = full_document(s, record);
  const std::string uri = node_uri(s, record);
  document["uri"] = uri;
  const bool filter = record.dev_type == ZORV_DEV_FILTER;
  for (const char* key : {incr_changed, diff_changed}) {
    const auto changed = filter ? changed_extents(s, record.minor, key) : std::nullopt;
    if (changed) document[key] = *changed;
  }
  std::string text =
      printable(field(record.name)) + ": " + (filter ? "filter" : "snap") + ", minor " +
      std::to_string(record.minor) + "\n" + line("uuid", field(record.uuid)) +
      line("state", state_of(record) + ", open " + std::to_string(record.use_cnt) +
                        (record.use_cnt == 1 ? " time" : " times")) +
      line("size", show_size(record.dev_size) + " (" + std::to_string(record.dev_size) + " bytes)");
  text += filter ? filter_text(s, record, document) : snap_text(s, record);
  text += line("uri", uri);
  std::istringstream trouble(filter ? bitmap_trouble(s, record.minor) : "");
  for (std::string said; std::getline(trouble, said);) text += line("trouble", said);
  return {std::move(document), std::move(text)};
}

answer uri(session& s, const std::string& node) {
  const zorv_info_req record = node_info(s, node);
  const std::string text = node_uri(s, record);
  return {{{"minor", record.minor}, {"name", field(record.name)}, {"uri", text}}, text + "\n"};
}

}  // namespace

void add_show_commands(CLI::App* app, invocation* inv) {
  auto which = std::make_shared<std::string>();
  add_command(app, inv, "list", "list nodes", [which](session& s) { return list(s, *which); })
      ->add_option("TYPE", *which, "filter or snap; default: both")
      ->check(CLI::IsMember({"filter", "snap"}));
  auto node = std::make_shared<std::string>();
  add_command(app, inv, "info", "tell everything about a node",
              [node](session& s) { return info(s, *node); })
      ->add_option("NODE", *node, node_help)
      ->required();
  add_command(app, inv, "uri", "print the address under which NBD clients open a node",
              [node](session& s) { return uri(s, *node); })
      ->add_option("NODE", *node, node_help)
      ->required();
}

}  // namespace zorv::cli
