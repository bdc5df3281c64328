// SPDX-License-Identifier: GPL-2.0-only
// The order of the driver's locks, outermost first. docs/concurrency.md says what each is for.
#pragma once

#include "kernel/lock_order.h"

namespace zorv::order {

using kernel::lock_class;

// Of sleeping locks.
inline constexpr lock_class snap_start{"start_mutex", 5, false};
inline constexpr lock_class filter_dev{"dev_mutex of a filter", 10, false};
inline constexpr lock_class snap_dev{"dev_mutex of a snap", 11, true};  // an older one's first
inline constexpr lock_class file{"file_lock", 20, true};
inline constexpr lock_class save{"save_mutex", 30, false};
inline constexpr lock_class bmp_file{"file_mutex", 31, true};  // the tests hold both
inline constexpr lock_class bmp_files{"bmp_mutex", 32, false};
inline constexpr lock_class bmp_notes{"note_mutex", 33, false};
inline constexpr lock_class routing{"snap_rwlock", 35, true};  // a filter before its HDD
inline constexpr lock_class record{"mutex of a record", 40, false};
inline constexpr lock_class word{"word_mutex", 41, false};
inline constexpr lock_class cow_bits{"bits_lock", 45, false};
inline constexpr lock_class table{"zorv_blkdev_rwlock", 50, false};
inline constexpr lock_class snaps{"snaps_lock", 60, true};
inline constexpr lock_class cowbmp{"lock of a COW bitmap", 70, false};
inline constexpr lock_class allocators{"allocators_mutex", 71, false};
inline constexpr lock_class status_tree{"tree_mutex", 72, false};

// Of spin locks.
inline constexpr lock_class cow_queue{"lock of a COW queue", 100, false};
inline constexpr lock_class cow_task{"hand of a COW task", 101, false};
inline constexpr lock_class bits{"bmp_lock", 110, false};
inline constexpr lock_class dirty_requests{"req_spin", 120, false};
inline constexpr lock_class record_list{"lock of a record", 121, false};
inline constexpr lock_class map{"lock of a map", 122, false};
inline constexpr lock_class clones{"aio_spin", 130, false};

}  // namespace zorv::order
