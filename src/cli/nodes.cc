// SPDX-License-Identifier: GPL-2.0-only
#include "cli/nodes.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "cli/text.h"

namespace zorv::cli {
namespace {

// Whole decimal text, or nothing.
template <class T>
std::optional<T> number(std::string_view text) {
  while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  T value = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || rest != text.data() + text.size() || text.empty()) return {};
  return value;
}

// By the status tree: the driver's list command ends at ZORV_LIST_LEN.
std::vector<std::uint32_t> all_minors(session& s) {
  zorv_proc_entry* list = nullptr;
  std::size_t count = 0;
  s.check(zorv_proc_list(s.handle(), "zorv", &list, &count), "the list of nodes");
  const std::unique_ptr<zorv_proc_entry, decltype(&std::free)> owner(list, std::free);
  std::vector<std::uint32_t> minors;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string_view name = list[i].name;
    if (name.rfind("zorv", 0) != 0) continue;
    if (const auto minor = number<std::uint32_t>(name.substr(4))) minors.push_back(*minor);
  }
  std::sort(minors.begin(), minors.end());
  return minors;
}

std::optional<std::string> status_text(session& s, std::uint32_t minor, const char* entry) {
  char* text = nullptr;
  const std::string path = "zorv/zorv" + std::to_string(minor) + "/" + entry;
  if (zorv_proc_read(s.handle(), path.c_str(), &text) < 0) return {};
  const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
  return text;
}

std::optional<std::uint64_t> status_number(session& s, std::uint32_t minor, const char* entry) {
  const auto text = status_text(s, minor, entry);
  return text ? number<std::uint64_t>(*text) : std::nullopt;
}

std::uint32_t given_minor(const std::string& text) {
  const auto minor = number<std::uint32_t>(text);
  if (!minor) throw failure(status_usage, 0, text + " is no minor, or too large for one");
  return *minor;
}

}  // namespace

// The names are asked of the status tree: the driver's record of a filter costs a look at its
// bitmaps.
std::uint32_t find_node(session& s, const std::string& node) {
  if (node.rfind(':', 0) == 0) return given_minor(node.substr(1));
  std::optional<std::uint32_t> found;
  std::optional<std::string> of_minor;  // the other node that a number could mean
  for (const std::uint32_t minor : all_minors(s)) {
    std::string name = status_text(s, minor, "name").value_or("");
    if (name.empty()) continue;  // gone meanwhile
    name.pop_back();
    if (name == node) {
      if (found) {
        throw failure(status_refused, EEXIST,
                      "several nodes are named " + node + "; give --minor instead");
      }
      found = minor;
    } else if (std::to_string(minor) == node) {
      of_minor = std::move(name);
    }
  }
  if (found && of_minor) {
    const std::string minor = std::to_string(*found);
    throw failure(status_refused, EEXIST,
                  node + " is the name of minor " + minor + " and the minor of " + *of_minor +
                      "; give :" + minor + " or :" + node);
  }
  if (found) return *found;
  if (!node.empty() && node.find_first_not_of("0123456789") == std::string::npos) {
    return given_minor(node);
  }
  throw failure(status_refused, ENOENT, "there is no node named " + node);
}

zorv_info_req node_info(session& s, std::uint32_t minor) {
  zorv_info_req info{};
  info.minor = minor;
  s.command(ZORV_GET_INFO, &info);
  return info;
}

zorv_info_req node_info(session& s, const std::string& node) {
  return node_info(s, find_node(s, node));
}

zorv_info_req filter_info(session& s, const std::string& node) {
  zorv_info_req info = node_info(s, node);
  if (info.dev_type != ZORV_DEV_FILTER) {
    throw failure(status_refused, EINVAL, field(info.name) + " is not a filter");
  }
  return info;
}

std::vector<zorv_info_req> all_nodes(session& s, std::uint32_t dev_type) {
  std::vector<zorv_info_req> nodes;
  for (const std::uint32_t minor : all_minors(s)) {
    zorv_info_req info{};
    info.minor = minor;
    const int error = s.try_command(ZORV_GET_INFO, &info);
    if (error == EINVAL) continue;
    if (error != 0) s.check(-1, "ZORV_GET_INFO");
    if (dev_type == 0 || dev_type == info.dev_type) nodes.push_back(info);
  }
  std::stable_sort(nodes.begin(), nodes.end(), [](const auto& one, const auto& other) {
    return one.dev_type < other.dev_type;
  });
  return nodes;
}

std::optional<zorv_info_req> still(session& s, const zorv_info_req& node) {
  zorv_info_req now{};
  now.minor = node.minor;
  const int error = s.try_command(ZORV_GET_INFO, &now);
  if (error == EINVAL) return {};
  if (error != 0) s.check(-1, "ZORV_GET_INFO");
  if (std::memcmp(now.uuid, node.uuid, sizeof now.uuid) != 0) return {};
  return now;
}

void ask(session& s, const zorv_info_req& node, const std::string& question,
         const std::string& otherwise) {
  if (::isatty(STDIN_FILENO) == 0) return;
  std::cerr << printable(question) << " [y/N] " << std::flush;
  std::string line;
  std::getline(std::cin, line);
  if (line != "y" && line != "Y" && line != "yes") {
    throw failure(status_refused, ECANCELED, otherwise);
  }
  if (!still(s, node)) {
    throw failure(status_refused, ENOENT, field(node.name) + " has gone; " + otherwise);
  }
}

json info_document(const zorv_info_req& info) {
  json doc = {{"minor", info.minor},     {"dev_type", info.dev_type}, {"dev_size", info.dev_size},
              {"started", info.started}, {"use_cnt", info.use_cnt},   {"uuid", field(info.uuid)},
              {"name", field(info.name)}};
  if (info.dev_type == ZORV_DEV_FILTER) {
    doc["hdd_name"] = field(info.hdd_name);
    doc["extent_size"] = info.extent_size;
    doc["extent_cnt"] = info.extent_cnt;
    const auto cnt = std::min<std::uint32_t>(info.snap_cnt, ZORV_LIST_LEN);
    doc["snap_minors"] = std::vector<std::uint32_t>(info.snap_minors, info.snap_minors + cnt);
    doc["snap_cnt"] = info.snap_cnt;
    doc["incr_bmp_size"] = info.incr_bmp_size;
    doc["diff_bmp_size"] = info.diff_bmp_size;
    doc["incr_bmp_fname"] = field(info.incr_bmp_fname);
    doc["diff_bmp_fname"] = field(info.diff_bmp_fname);
    doc["incr_bmp_clear"] = info.incr_bmp_clear;
    doc["diff_bmp_clear"] = info.diff_bmp_clear;
    doc["incr_bmp_full"] = info.incr_bmp_full;
    doc["diff_bmp_full"] = info.diff_bmp_full;
  } else {
    doc["snap_valid"] = info.snap_valid;
    doc["stop_pending"] = info.stop_pending;
    doc["del_pending"] = info.del_pending;
    doc["chunk_size"] = info.chunk_size;
    doc["chunk_cnt"] = info.chunk_cnt;
    doc["cow_bmp_size"] = info.cow_bmp_size;
    doc["cow_data_size"] = info.cow_data_size;
    doc["cow_bmp_fname"] = field(info.cow_bmp_fname);
    doc["cow_data_fname"] = field(info.cow_data_fname);
  }
  return doc;
}

std::optional<std::uint64_t> copied_bytes(session& s, std::uint32_t snap_minor) {
  return status_number(s, snap_minor, "copied_bytes");
}

std::optional<std::uint64_t> queue_length(session& s, std::uint32_t filter_minor) {
  return status_number(s, filter_minor, "cowqueue_len");
}

std::optional<std::uint64_t> changed_extents(session& s, std::uint32_t filter_minor,
                                             const char* entry) {
  return status_number(s, filter_minor, entry);
}

std::string bitmap_trouble(session& s, std::uint32_t filter_minor) {
  return status_text(s, filter_minor, "bmp_trouble").value_or("");
}

std::optional<std::uint32_t> filter_of(session& s, std::uint32_t snap_minor) {
  const auto minor = status_number(s, snap_minor, "filter_minor");
  if (!minor) return {};
  return static_cast<std::uint32_t>(*minor);
}

std::string node_uri(session& s, const zorv_info_req& info) {
  zorv_daemon daemon{};
  s.check(zorv_daemon_info(s.handle(), &daemon), "the daemon's sockets");
  return "nbd+unix:///" + percent_encode(field(info.name)) +
         "?socket=" + percent_encode(field(daemon.nbd_socket));
}

}  // namespace zorv::cli
